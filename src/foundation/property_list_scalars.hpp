// SPDX-License-Identifier: MIT
// Numbers and dates of XML property lists. The parsers ignore surrounding white space and return
// std::nullopt for invalid text.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "corvalen/value.hpp"

namespace corvalen {

[[nodiscard]] std::string_view trimmedWhiteSpace(std::string_view text) noexcept;

/// Decimal, or hexadecimal after "0x". Signed; unsigned if too large for std::int64_t.
[[nodiscard]] std::optional<Number> integerFromText(std::string_view text) noexcept;
/// A decimal number, "inf", "infinity" or "nan" in any case.
[[nodiscard]] std::optional<Number> realFromText(std::string_view text) noexcept;
/// YYYY-MM-DDThh:mm:ssZ; the date and the time must exist.
[[nodiscard]] std::optional<Date> dateFromText(std::string_view text) noexcept;

/// Returns std::nullopt for fractions of a second and for years outside 0 to 9999.
[[nodiscard]] std::optional<std::string> textFromDate(const Date& date);

}  // namespace corvalen
