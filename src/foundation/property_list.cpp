// SPDX-License-Identifier: MIT
#include "foundation/property_list.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "foundation/property_list_readers.hpp"

namespace corvalen {

namespace {

constexpr std::array<std::string_view, 11> kElements = {
    "plist", "dict", "array", "string", "integer", "true", "false", "real", "data", "date", "key"};

/// ASCII data also begins with '<': `<da>` is a byte, `<data>` an XML element.
bool looksLikeXml(std::string_view bytes) noexcept {
    if (bytes.substr(0, 3) == "\xEF\xBB\xBF") bytes.remove_prefix(3);
    // A UTF-16 byte order mark: only the XML reader supports UTF-16.
    if (bytes.substr(0, 2) == "\xFF\xFE" || bytes.substr(0, 2) == "\xFE\xFF") return true;
    const std::size_t first = bytes.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos || bytes[first] != '<') return false;
    bytes.remove_prefix(first + 1);
    if (bytes.empty() || bytes.front() == '?' || bytes.front() == '!') return true;
    const std::string_view name = bytes.substr(0, bytes.find_first_of(" \t\r\n/>"));
    return std::find(kElements.begin(), kElements.end(), name) != kElements.end();
}

using Reader = std::optional<Value> (*)(std::string_view, PropertyListFault&);

Reader readerFor(std::string_view bytes) noexcept {
    if (bytes.starts_with(kBinaryPropertyListMagic)) return readBinaryPropertyList;
    return looksLikeXml(bytes) ? readXmlPropertyList : readAsciiPropertyList;
}

}  // namespace

std::optional<Value> propertyListFromData(std::string_view bytes, ErrorRef* error) {
    PropertyListFault fault;
    std::optional<Value> value = readerFor(bytes)(bytes, fault);
    if (!value && error != nullptr) {
        const std::string text =
            fmt::format("{} (line {}, column {})", fault.words, fault.line, fault.column);
        *error = makeError(kCocoaErrorDomain, cocoa::kPropertyListReadCorrupt,
                           Dictionary{{std::string(kLocalizedDescriptionKey), text}});
    }
    return value;
}

}  // namespace corvalen
