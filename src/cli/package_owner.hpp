// SPDX-License-Identifier: MIT
// What belongs to a package is the package manager's to remove.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "cli/report.hpp"

namespace corvalen::cli {

/// The package that a file belongs to; empty for none, and where nobody knows.
[[nodiscard]] std::string packageOf(const std::string& path);

/// Why `command` may not remove the rights: a package installed them. Nothing when it may.
[[nodiscard]] std::optional<Failure> refusalToRemoveRights(std::string_view command);

}  // namespace corvalen::cli
