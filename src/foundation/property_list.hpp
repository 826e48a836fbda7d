// SPDX-License-Identifier: MIT
// Property lists as bytes: the XML form in both directions, the binary and the ASCII form to read.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "corvalen/error.hpp"
#include "corvalen/value.hpp"

namespace corvalen {

/// Containers within containers; a list of scalars has the depth 1.
inline constexpr std::size_t kMaximumPropertyListDepth = 128;
/// Values of a list altogether, containers and scalars (keys not counted).
inline constexpr std::size_t kMaximumPropertyListNodes = 100'000;

/// Reads a property list: binary or XML when the bytes begin so, else the old ASCII form, also that
/// of string tables (`key = value;` without braces). The XML form may lack its header and its
/// `plist` element. A document type with declarations of its own is refused, so no entity expands.
/// Numbers, dates (YYYY-MM-DDThh:mm:ssZ) and base64 must be whole and in range; of equal keys the
/// last one counts. Nothing and a Cocoa error 3840 when it cannot be read; the description has the
/// parser's words with line and column, both counted from 1.
[[nodiscard]] std::optional<Value> propertyListFromData(std::string_view bytes,
                                                        ErrorRef* error = nullptr);

/// Writes the XML form, keys in byte order. Whatever it gives is read back as an equal value.
/// Nothing and a Cocoa error 3852 for what the form cannot carry: values that are no property list
/// (nil, errors, endpoints), strings and keys that are no UTF-8 or have control characters other
/// than tab, line feed and carriage return, dates with parts of a second or outside the years 0 to
/// 9999, lists beyond the limits above.
[[nodiscard]] std::optional<std::string> xmlPropertyList(const Value& value,
                                                         ErrorRef* error = nullptr);

}  // namespace corvalen
