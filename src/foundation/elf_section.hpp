// SPDX-License-Identifier: MIT
// Sections of executable files (elf(5)), read with every offset checked.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace corvalen {

/// The contents of a section of a file of this machine's own class. Nothing when it has none of
/// that name, when the section is larger than `maximumSize`, or when the file is not well formed.
[[nodiscard]] std::optional<std::string> readElfSection(int file, std::string_view name,
                                                        std::size_t maximumSize);

}  // namespace corvalen
