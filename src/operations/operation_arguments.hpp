// SPDX-License-Identifier: MIT
// The arguments of an operation: access by index, and conversion of their text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "corvalen/value.hpp"

namespace corvalen {

// Access to arguments that were checked against the descriptor. A missing argument reads as empty
// or 0. References are valid as long as `arguments`.

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

/// Types of property list values.
enum class PropertyListType : std::uint8_t {
    boolean,
    number,
    string,
    data,
    date,
    array,
    dictionary,
};

/// Reads "0" or "1" into `*output`; `output` may be null. Returns false and leaves `*output`
/// unchanged for any other text and for null.
bool getBool(bool* output, const std::string* fromStringArgument) noexcept;

/// Returns the value of the text. Boolean: "true" or "false". Number: as strtoll(3) reads it in
/// base 10. String: unchanged. Data: "%0A%FF...". Returns std::nullopt for null, for other
/// spellings and for the other types.
[[nodiscard]] std::optional<Value> copyCoreFoundationValueWithType(
    PropertyListType type, const std::string* forValueInString);

}  // namespace corvalen
