// SPDX-License-Identifier: MIT
// Removes the helper from the machine. What belongs to a package is the package manager's to
// remove.
#pragma once

#include <optional>
#include <string_view>

#include "cli/command.hpp"
#include "cli/report.hpp"

namespace corvalen::cli {

/// Why `command` may not remove the rights: a package installed them. Nothing when it may.
[[nodiscard]] std::optional<Failure> refusalToRemoveRights(std::string_view command);

/// Lets the helper remove its rights, then its files, after asking.
int runUninstall(const Arguments& arguments);

}  // namespace corvalen::cli
