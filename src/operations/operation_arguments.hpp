// SPDX-License-Identifier: MIT
// The arguments of an operation: access by index, conversion of their text, and what they tell of a
// request.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvalen/value.hpp"

namespace corvalen {

struct OperationEntry;
struct RightPurpose;

// Access to arguments that were checked against the descriptor. A missing argument reads as empty
// or 0. References are valid as long as `arguments`.

[[nodiscard]] const std::string& stringArgument(const Array& arguments, std::size_t index) noexcept;
[[nodiscard]] Number numberArgument(const Array& arguments, std::size_t index) noexcept;
/// Null if the argument is missing or no data.
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
/// base 10, 0 if the text begins with none. String: unchanged. Data: "%0A%FF...". Returns
/// std::nullopt for null, for other spellings of Booleans and data, and for the other types.
[[nodiscard]] std::optional<Value> copyCoreFoundationValueWithType(
    PropertyListType type, const std::string* forValueInString);

// The objects and the purpose of a request, for the authority's rules, prompts and the audit.

/// Maximum bytes of a value in `RightPurpose::details`: longer values are cut, longer objects left
/// out.
inline constexpr std::size_t kLongestDetail = 256;
inline constexpr std::size_t kLongestObjectDetail = 4096;

/// Returns the objects that the arguments name, as sent: paths, names, decimal numbers. The
/// arguments may be unchecked; values of other types are left out.
[[nodiscard]] std::vector<std::string> objectsOfRequest(const OperationEntry& operation,
                                                        const Array& arguments);

/// Returns the purpose of a request. Its details are "operation", "object", and the other arguments
/// by name, with hyphens for blanks. "object" is present only if the request names exactly one; an
/// absolute path must have no empty, "." or ".." component. Control characters, markup, backslashes
/// and invalid UTF-8 are escaped as \xNN.
[[nodiscard]] RightPurpose purposeOfRequest(const OperationEntry& operation,
                                            const Array& arguments);

}  // namespace corvalen
