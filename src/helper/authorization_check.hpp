// SPDX-License-Identifier: MIT
// Whether a client holds the right of the operation that it asks for.
#pragma once

#include <string_view>

#include "corvalen/error.hpp"
#include "operations/privileged_operation_set.hpp"
#include "platform/authorization.hpp"

namespace corvalen {

/// Who asks: what the client sent of its authorization, and the process that the kernel attests.
struct AuthorizationClaim {
    std::string_view authorizationData;
    const PeerIdentity& peer;
    /// What the operation is asked for; not yet checked. Null for nothing.
    const Array* arguments = nullptr;
};

/// Null when the right of `operation` (null for an unknown code) is granted. Else POSIX 22 for data
/// of the wrong length or an operation without a right, POSIX 1 for a denied right, POSIX 89 for a
/// dialog that the user dismissed, and the status itself for everything else. Blocks as long as
/// the user is asked. With `destroyingRights` all rights of the authorization are forgotten
/// afterwards, granted or not. What the service throws is passed on: not granted.
[[nodiscard]] ErrorRef checkAuthorization(AuthorizationService& service,
                                          const AuthorizationClaim& claim,
                                          const OperationEntry* operation, bool destroyingRights);

}  // namespace corvalen
