// SPDX-License-Identifier: MIT
// Checks whether a client holds the right of an operation.
#pragma once

#include "corvalen/error.hpp"
#include "helper/privileged_request.hpp"
#include "operations/privileged_operation_set.hpp"
#include "platform/authorization/authorization.hpp"

namespace corvalen {

/// Returns null if the right of `operation` (null for an unknown code) is granted to the caller of
/// the request, whose arguments may be unchecked. Else POSIX 22 for authorization data of the wrong
/// length or an operation without a right, POSIX 1 for a denied right, POSIX 89 for a dismissed
/// dialog, and the status itself for everything else. Blocks while the user is asked. A request of
/// discard-auth forgets all rights of the authorization afterwards, granted or not. Passes on
/// exceptions of the service; the right is not granted then.
[[nodiscard]] ErrorRef checkAuthorization(AuthorizationService& service,
                                          const PrivilegedRequest& request,
                                          const OperationEntry* operation);

}  // namespace corvalen
