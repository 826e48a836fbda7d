// SPDX-License-Identifier: MIT
// The readers behind propertyListFromData, and how they tell what is wrong.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/property_list.hpp"

namespace corvalen {

/// How the binary form begins.
inline constexpr std::string_view kBinaryPropertyListMagic = "bplist00";

/// What a reader complains about, and where; line and column count from 1, and stay 1 for the
/// binary form.
struct PropertyListFault {
    std::string words;
    std::size_t line = 1;
    std::size_t column = 1;
};

/// Nothing and `fault` filled when the bytes cannot be read.
[[nodiscard]] std::optional<Value> readXmlPropertyList(std::string_view bytes,
                                                       PropertyListFault& fault);
[[nodiscard]] std::optional<Value> readBinaryPropertyList(std::string_view bytes,
                                                          PropertyListFault& fault);
[[nodiscard]] std::optional<Value> readAsciiPropertyList(std::string_view bytes,
                                                         PropertyListFault& fault);

}  // namespace corvalen
