// SPDX-License-Identifier: MIT
// Converts the text of arguments to typed values.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "corvalen/value.hpp"

namespace corvalen {

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
