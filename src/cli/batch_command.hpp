// SPDX-License-Identifier: MIT
// Many operations over one connection and one authorization.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "cli/command.hpp"

namespace corvalen::cli {

/// Performs the operations of a file, one a line. All lines are read before the first is performed.
int runBatch(const Arguments& arguments);

/// The words of a line as a shell would split it: blanks separate, '...' and "..." and a backslash
/// take blanks and quotes as they are. Nothing for an empty line or one that begins with '#'. A
/// UsageError for a quote without its end.
[[nodiscard]] std::vector<std::string> splitWords(std::string_view line);

}  // namespace corvalen::cli
