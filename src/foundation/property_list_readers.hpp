// SPDX-License-Identifier: MIT
// The two readers behind propertyListFromData, and how they tell what is wrong.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/property_list.hpp"

namespace corvalen {

/// What a reader complains about, and where; line and column count from 1.
struct PropertyListFault {
    std::string words;
    std::size_t line = 1;
    std::size_t column = 1;
};

/// Nothing and `fault` filled when the bytes cannot be read.
[[nodiscard]] std::optional<Value> readXmlPropertyList(std::string_view bytes,
                                                       PropertyListFault& fault);
[[nodiscard]] std::optional<Value> readAsciiPropertyList(std::string_view bytes,
                                                         PropertyListFault& fault);

}  // namespace corvalen
