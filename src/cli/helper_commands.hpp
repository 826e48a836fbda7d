// SPDX-License-Identifier: MIT
// Commands for the daemon itself that have source files of their own: status, log, batch,
// uninstall.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string_view>

#include "cli/command.hpp"
#include "cli/report.hpp"
#include "platform/authorization/authorization.hpp"

namespace corvalen::cli {

// status_command.cpp

/// Shows whether the daemon answers and, with --rights, the outlook of each operation; returns the
/// exit code.
int runStatus(const Arguments& arguments);

/// Returns what the authority would answer this process for an operation, without an object. Does
/// not prompt.
[[nodiscard]] RightOutlook outlookOfOperation(AuthorizationService& authority,
                                              std::string_view operation);

/// Returns the authority of this machine, asked with the rights of this user.
[[nodiscard]] std::unique_ptr<AuthorizationService> authorityOfThisMachine();

// log_command.cpp

/// Lists the granted operations with user, program, object and outcome; returns the exit code.
int runLog(const Arguments& arguments);

/// Converts a local time to seconds since 1970: "2026-11-22", "2026-11-22 14:00", "14:00" (both
/// also with seconds), "today", "yesterday", or an age before `now` such as "2h" (s, min, m, h, d,
/// w). Throws UsageError for other texts.
[[nodiscard]] std::time_t parsePointOfTime(std::string_view text, std::time_t now);

// batch_command.cpp

/// Performs the operations of a file, one a line; returns the greatest exit code. Checks all lines
/// first. Throws UsageError.
int runBatch(const Arguments& arguments);

// uninstall_command.cpp

/// Returns the failure of `command` if a package owns the rights; nullopt if they may be removed.
[[nodiscard]] std::optional<Failure> refusalToRemoveRights(std::string_view command);

/// Asks, then lets the daemon remove its rights and its files; returns the exit code. Throws
/// UsageError.
int runUninstall(const Arguments& arguments);

}  // namespace corvalen::cli
