// SPDX-License-Identifier: MIT
// Which authority decides who holds a right.
#pragma once

#include <memory>

#include "platform/authorization.hpp"

namespace corvalen {

/// The authority of this machine. Never null.
[[nodiscard]] std::unique_ptr<AuthorizationService> makeAuthorizationService();

}  // namespace corvalen
