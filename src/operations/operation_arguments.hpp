// SPDX-License-Identifier: MIT
// Access to the arguments of an operation, whose number and types were checked against its
// descriptor before; what is not there reads as empty or 0. References live as long as `arguments`.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "corvalen/value.hpp"

namespace corvalen {

[[nodiscard]] const std::string& stringArgument(const Array& arguments, std::size_t index) noexcept;
[[nodiscard]] Number numberArgument(const Array& arguments, std::size_t index) noexcept;
/// Null when there is none.
[[nodiscard]] const Data* dataArgument(const Array& arguments, std::size_t index) noexcept;

/// Whether the path cannot be given to the system at all: it would end at a NUL byte.
[[nodiscard]] inline bool hasNulByte(std::string_view path) noexcept {
    return path.find('\0') != std::string_view::npos;
}
[[nodiscard]] inline bool isEmptyOrHasNulByte(std::string_view path) noexcept {
    return path.empty() || hasNulByte(path);
}

}  // namespace corvalen
