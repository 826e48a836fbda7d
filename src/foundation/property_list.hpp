// SPDX-License-Identifier: MIT
// Reads property lists (XML, binary, ASCII) and writes the XML form.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "corvalen/error.hpp"
#include "corvalen/value.hpp"
#include "foundation/result.hpp"

namespace corvalen {

/// Maximum nesting of containers; a list of scalars has depth 1.
inline constexpr std::size_t kMaximumPropertyListDepth = 128;
/// Maximum number of values in a list, containers and scalars; keys do not count.
inline constexpr std::size_t kMaximumPropertyListNodes = 100'000;

/// Reads a property list: binary or XML if the bytes begin like one, else the old ASCII form,
/// including string tables (`key = value;` without braces). The XML form may lack its header and
/// its `plist` element. A document type with declarations of its own is refused, so no entity
/// expands. Numbers, dates (YYYY-MM-DDThh:mm:ssZ) and base64 must be complete and in range. Of
/// equal keys the last one counts.
/// Fails with a Cocoa error 3840. Its description holds the parser's message, the line and the
/// column, both counted from 1.
[[nodiscard]] Result<Value, ErrorRef> propertyListFromData(std::string_view bytes);

/// Writes the XML form, keys in byte order. Reading it back returns an equal value. Fails with a
/// Cocoa error 3852 for values that the form cannot carry: nil, errors and endpoints; strings and
/// keys that are not UTF-8 or hold characters that XML forbids (XML 1.0, 2.2); dates with fractions
/// of a second or outside the years 0 to 9999; lists beyond the limits above.
[[nodiscard]] Result<std::string, ErrorRef> xmlPropertyList(const Value& value);

// The readers behind propertyListFromData, and the fault that they report.

/// First bytes of the binary form.
inline constexpr std::string_view kBinaryPropertyListMagic = "bplist00";

/// A reader's message and position. Line and column count from 1; they stay 1 for the binary form.
struct PropertyListFault {
    std::string message;
    std::size_t line = 1;
    std::size_t column = 1;
};

using PropertyListResult = Result<Value, PropertyListFault>;

[[nodiscard]] PropertyListResult readXmlPropertyList(std::string_view bytes);
[[nodiscard]] PropertyListResult readBinaryPropertyList(std::string_view bytes);
[[nodiscard]] PropertyListResult readAsciiPropertyList(std::string_view bytes);

}  // namespace corvalen
