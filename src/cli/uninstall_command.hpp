// SPDX-License-Identifier: MIT
// The uninstall command, which removes the daemon from the machine unless a package owns it.
#pragma once

#include <optional>
#include <string_view>

#include "cli/command.hpp"
#include "cli/report.hpp"

namespace corvalen::cli {

/// Returns the failure of `command` if a package owns the rights; nullopt if they may be removed.
[[nodiscard]] std::optional<Failure> refusalToRemoveRights(std::string_view command);

/// Asks, then lets the daemon remove its rights and its files; returns the exit code. Throws
/// UsageError.
int runUninstall(const Arguments& arguments);

}  // namespace corvalen::cli
