// SPDX-License-Identifier: MIT
// Reads sections of executable files (elf(5)); checks every offset.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace corvalen {

/// Returns the contents of a section of a file of this machine's class (32 or 64 bit). Borrows
/// `file` and does not move its offset. Returns std::nullopt if the file is malformed or has no
/// such section, or if the section is larger than `maximumSize` bytes.
[[nodiscard]] std::optional<std::string> readElfSection(int file, std::string_view name,
                                                        std::size_t maximumSize);

}  // namespace corvalen
