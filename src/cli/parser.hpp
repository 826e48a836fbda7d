// SPDX-License-Identifier: MIT
// Parses the command line by the command table.
#pragma once

#include <string>
#include <vector>

#include "cli/command.hpp"

namespace corvalen::cli {

struct ParsedCommandLine {
    /// Null when there is nothing to run; `exitCode` and the texts then hold the result.
    const Command* command = nullptr;
    /// Whether --json was given; also set when there is nothing to run.
    bool wantsJson = false;
    Arguments arguments;
    int exitCode = kExitSuccess;
    std::string outputText;
    /// Without the program's name and a final newline. Has words as they were typed: not escaped
    /// for a terminal.
    std::string errorText;
};

/// Parses the words after the program's name.
[[nodiscard]] ParsedCommandLine parseCommandLine(const std::vector<std::string>& words);

}  // namespace corvalen::cli
