// SPDX-License-Identifier: MIT
// Whether the helper can be used, and what for.
#pragma once

#include "cli/command.hpp"
#include "platform/authorization.hpp"

namespace corvalen::cli {

/// Shows whether the helper answers and, with --rights, what this user may do; gives the exit code.
int runStatus(const Arguments& arguments);

/// Whether this process would be granted the right of an operation, for no object in particular.
[[nodiscard]] RightOutlook outlookOfOperation(AuthorizationService& authority,
                                              std::string_view operation);

/// The authority of this machine, as this user can ask it.
[[nodiscard]] std::unique_ptr<AuthorizationService> authorityOfThisMachine();

}  // namespace corvalen::cli
