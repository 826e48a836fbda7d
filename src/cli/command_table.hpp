// SPDX-License-Identifier: MIT
// All commands of corvalenctl.
#pragma once

#include "cli/command.hpp"

namespace corvalen::cli {

/// In the order in which help lists them.
[[nodiscard]] const std::vector<Command>& commandTable();
/// Null when there is no such command.
[[nodiscard]] const Command* findCommand(std::string_view name);

/// The commands that a mistyped word may stand for, the nearest first, at most three: those that
/// begin with it, and those that a few wrong, missing, additional or exchanged letters make of it.
[[nodiscard]] std::vector<std::string_view> suggestionsFor(std::string_view word);

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
