// SPDX-License-Identifier: MIT
// The status command: whether the daemon answers, and the operations that the user may perform.
#pragma once

#include "cli/command.hpp"
#include "platform/authorization/authorization.hpp"

namespace corvalen::cli {

/// Shows whether the daemon answers and, with --rights, the outlook of each operation; returns the
/// exit code.
int runStatus(const Arguments& arguments);

/// Returns what the authority would answer this process for an operation, without an object. Does
/// not prompt.
[[nodiscard]] RightOutlook outlookOfOperation(AuthorizationService& authority,
                                              std::string_view operation);

/// Returns the authority of this machine, asked with the rights of this user.
[[nodiscard]] std::unique_ptr<AuthorizationService> authorityOfThisMachine();

}  // namespace corvalen::cli
