// SPDX-License-Identifier: MIT
// The text of numbers and dates in an XML property list. White space around is allowed.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "corvalen/value.hpp"

namespace corvalen {

[[nodiscard]] std::string_view trimmedWhiteSpace(std::string_view text) noexcept;

/// Decimal or, after "0x", hexadecimal; signed, or unsigned when too large for that.
[[nodiscard]] std::optional<Number> integerFromText(std::string_view text) noexcept;
/// A decimal number, "inf", "infinity" or "nan" in any case.
[[nodiscard]] std::optional<Number> realFromText(std::string_view text) noexcept;
/// YYYY-MM-DDThh:mm:ssZ, a day and a second that exist.
[[nodiscard]] std::optional<Date> dateFromText(std::string_view text) noexcept;

/// Nothing for a date that the form cannot carry.
[[nodiscard]] std::optional<std::string> textFromDate(const Date& date);

}  // namespace corvalen
