// SPDX-License-Identifier: MIT
// Access to the arguments of an operation, whose types were checked before.
#pragma once

#include <string>
#include <string_view>

#include "foundation/value.hpp"

namespace corvalen {

/// The string at a position; empty when there is none, which every operation refuses.
[[nodiscard]] const std::string& stringArgument(const Array& arguments,
                                                std::size_t position) noexcept;
/// The Boolean value of the number at a position; false when there is none.
[[nodiscard]] bool boolArgument(const Array& arguments, std::size_t position) noexcept;
/// The low 32 bits of the number at a position.
[[nodiscard]] std::uint32_t code32Argument(const Array& arguments, std::size_t position) noexcept;
/// The data at a position, or null.
[[nodiscard]] const Data* dataArgument(const Array& arguments, std::size_t position) noexcept;

/// Whether the path cannot be given to the system at all: it would end at a NUL byte.
[[nodiscard]] inline bool hasNulByte(std::string_view path) noexcept {
    return path.find('\0') != std::string_view::npos;
}
[[nodiscard]] inline bool isEmptyOrHasNulByte(std::string_view path) noexcept {
    return path.empty() || hasNulByte(path);
}

}  // namespace corvalen
