// SPDX-License-Identifier: MIT
// Checks whether a client holds the right of an operation.
#pragma once

#include <string_view>

#include "corvalen/error.hpp"
#include "operations/privileged_operation_set.hpp"
#include "platform/authorization/authorization.hpp"

namespace corvalen {

/// The caller: the authorization data that it sent, and its identity according to the kernel.
struct AuthorizationClaim {
    std::string_view authorizationData;
    const PeerIdentity& peer;
    /// Arguments of the operation, unchecked; null for none.
    const Array* arguments = nullptr;
};

/// Returns null if the right of `operation` (null for an unknown code) is granted. Else POSIX 22
/// for data of the wrong length or an operation without a right, POSIX 1 for a denied right, POSIX
/// 89 for a dismissed dialog, and the status itself for everything else. Blocks while the user is
/// asked. With `destroyingRights`, forgets all rights of the authorization afterwards, granted or
/// not. Passes on exceptions of the service; the right is not granted then.
[[nodiscard]] ErrorRef checkAuthorization(AuthorizationService& service,
                                          const AuthorizationClaim& claim,
                                          const OperationEntry* operation, bool destroyingRights);

}  // namespace corvalen
