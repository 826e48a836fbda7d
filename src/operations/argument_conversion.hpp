// SPDX-License-Identifier: MIT
// Typed values from the text of arguments. Strict: what is not an accepted spelling is refused.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "corvalen/value.hpp"

namespace corvalen {

/// Kinds of property-list values that a text can be asked to stand for.
enum class PropertyListType : std::uint8_t {
    boolean,
    number,
    string,
    data,
    date,
    array,
    dictionary,
};

/// Reads "0" or "1" into `*output`, which may be null; anything else, null included, gives false
/// and leaves the output untouched.
bool getBool(bool* output, const std::string* fromStringArgument) noexcept;

/// The value that the text spells: a boolean "true" or "false"; a number as a decimal integer of
/// 64 bits, 0 for other text, held at the ends of its range; a string as it stands; data as
/// "%0A%FF...". Nothing for null, for other spellings and for the other types.
[[nodiscard]] std::optional<Value> copyCoreFoundationValueWithType(
    PropertyListType type, const std::string* forValueInString);

}  // namespace corvalen
