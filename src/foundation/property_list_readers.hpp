// SPDX-License-Identifier: MIT
// The readers behind propertyListFromData, and the fault that they report.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/property_list.hpp"

namespace corvalen {

/// First bytes of the binary form.
inline constexpr std::string_view kBinaryPropertyListMagic = "bplist00";

/// A reader's message and position. Line and column count from 1; they stay 1 for the binary form.
struct PropertyListFault {
    std::string message;
    std::size_t line = 1;
    std::size_t column = 1;
};

/// These return std::nullopt and fill `fault` if the bytes cannot be read.
[[nodiscard]] std::optional<Value> readXmlPropertyList(std::string_view bytes,
                                                       PropertyListFault& fault);
[[nodiscard]] std::optional<Value> readBinaryPropertyList(std::string_view bytes,
                                                          PropertyListFault& fault);
[[nodiscard]] std::optional<Value> readAsciiPropertyList(std::string_view bytes,
                                                         PropertyListFault& fault);

}  // namespace corvalen
