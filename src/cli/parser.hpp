// SPDX-License-Identifier: MIT
// Reads the command line by the command table.
#pragma once

#include <string>
#include <vector>

#include "cli/command.hpp"

namespace corvalen::cli {

struct ParsedCommandLine {
    /// Null when there is nothing to run: `exitCode` and the texts say why.
    const Command* command = nullptr;
    /// Also when there is nothing to run.
    bool wantsJson = false;
    Arguments arguments;
    int exitCode = kExitSuccess;
    std::string outputText;
    /// Without the program's name and a final newline; as it was typed, so not safe for a terminal.
    std::string errorText;
};

/// `words` without the program's name.
[[nodiscard]] ParsedCommandLine parseCommandLine(const std::vector<std::string>& words);

}  // namespace corvalen::cli
