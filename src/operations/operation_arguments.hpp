// SPDX-License-Identifier: MIT
// Access to the arguments of an operation, already checked against its descriptor. A missing
// argument reads as empty or 0. References are valid as long as `arguments`.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "corvalen/value.hpp"

namespace corvalen {

[[nodiscard]] const std::string& stringArgument(const Array& arguments, std::size_t index) noexcept;
[[nodiscard]] Number numberArgument(const Array& arguments, std::size_t index) noexcept;
/// Null if there is none.
[[nodiscard]] const Data* dataArgument(const Array& arguments, std::size_t index) noexcept;

/// True if no system call can take the path: it would end at the NUL byte.
[[nodiscard]] inline bool hasNulByte(std::string_view path) noexcept {
    return path.find('\0') != std::string_view::npos;
}
[[nodiscard]] inline bool isEmptyOrHasNulByte(std::string_view path) noexcept {
    return path.empty() || hasNulByte(path);
}

}  // namespace corvalen
