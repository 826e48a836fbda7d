// SPDX-License-Identifier: MIT
// What a mistyped word was meant to be.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace corvalen::cli {

/// The names that `word` may stand for, the nearest first, at most three: names that begin with it,
/// and names that a few wrong, missing, additional or exchanged letters make of it.
[[nodiscard]] std::vector<std::string> suggestionsFor(std::string_view word,
                                                      const std::vector<std::string_view>& names);

}  // namespace corvalen::cli
