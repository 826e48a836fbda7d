// SPDX-License-Identifier: MIT
// All commands of corvalenctl.
#pragma once

#include "cli/command.hpp"

namespace corvalen::cli {

/// In the order in which help lists them.
[[nodiscard]] const std::vector<Command>& commandTable();
/// Null when there is no such command.
[[nodiscard]] const Command* findCommand(std::string_view name);

/// The names of the utilities that the helper runs, with blanks between them.
[[nodiscard]] std::string utilityNames();

/// The families.
[[nodiscard]] std::span<const Command> helperCommands();
[[nodiscard]] std::span<const Command> fileCommands();
[[nodiscard]] std::span<const Command> treeCommands();
[[nodiscard]] std::span<const Command> settingCommands();
[[nodiscard]] std::span<const Command> processCommands();
[[nodiscard]] std::span<const Command> callCommands();

}  // namespace corvalen::cli
