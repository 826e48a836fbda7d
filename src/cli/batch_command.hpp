// SPDX-License-Identifier: MIT
// The batch command: many operations over one connection and one authorization.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "cli/command.hpp"

namespace corvalen::cli {

/// Performs the operations of a file, one a line; returns the greatest exit code. Checks all lines
/// first. Throws UsageError.
int runBatch(const Arguments& arguments);

/// Splits a line into words like a shell: at blanks outside of '...', "..." and backslash escapes.
/// Returns no words for an empty line or a comment, which begins with '#'. Throws UsageError for an
/// open quote.
[[nodiscard]] std::vector<std::string> splitWords(std::string_view line);

}  // namespace corvalen::cli
