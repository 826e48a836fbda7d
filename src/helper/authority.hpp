// SPDX-License-Identifier: MIT
// Which authority decides who holds a right.
#pragma once

#include <memory>

#include "operations/privileged_operation_set.hpp"
#include "platform/authorization.hpp"

namespace corvalen {

/// The authority of this machine, which judges by the definitions of the set the rights that nobody
/// has defined there. Never null.
[[nodiscard]] std::unique_ptr<AuthorizationService> makeAuthorizationService(
    const QRLPrivilegedOperationSet& operationSet);

}  // namespace corvalen
