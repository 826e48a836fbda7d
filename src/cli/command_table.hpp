// SPDX-License-Identifier: MIT
// All commands of corvalenctl.
#pragma once

#include "cli/command.hpp"

namespace corvalen::cli {

/// Returns the commands in the order of the help.
[[nodiscard]] const std::vector<Command>& commandTable();
/// Returns null for an unknown command.
[[nodiscard]] const Command* findCommand(std::string_view name);

/// Returns example command lines of a command, separated by newlines; empty for an unknown one.
[[nodiscard]] std::string_view examplesOf(std::string_view command) noexcept;

/// Returns at most three of the names that a mistyped word may stand for, the nearest first: those
/// that begin with the word, and those within an edit distance of a third of its length.
[[nodiscard]] std::vector<std::string_view> suggestionsFor(
    std::string_view word, const std::vector<std::string_view>& names);

/// Returns the names of the permitted utilities, separated by spaces.
[[nodiscard]] std::string utilityNames();

/// The commands of each family, one source file each.
[[nodiscard]] std::span<const Command> helperCommands();
[[nodiscard]] std::span<const Command> fileCommands();
[[nodiscard]] std::span<const Command> treeCommands();
[[nodiscard]] std::span<const Command> settingCommands();
[[nodiscard]] std::span<const Command> processCommands();
[[nodiscard]] std::span<const Command> callCommands();

}  // namespace corvalen::cli
