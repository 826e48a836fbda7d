// SPDX-License-Identifier: MIT
// The catalogue of operations as text.
#pragma once

#include <string>

namespace corvalen::cli {

/// An aligned table with a heading.
[[nodiscard]] std::string catalogueTable();
/// One JSON object a line.
[[nodiscard]] std::string catalogueJson();

}  // namespace corvalen::cli
