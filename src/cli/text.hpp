// SPDX-License-Identifier: MIT
// Text for terminals and for programs.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "corvalen/value.hpp"

namespace corvalen::cli {

/// Control characters, characters that turn the writing direction, and bytes that are no UTF-8 as
/// \xNN, byte by byte; everything else as it is.
[[nodiscard]] std::string escapedForTerminal(std::string_view text);

/// "1.4M": three digits at most and a unit of 1024; bytes up to 1023 have no unit.
[[nodiscard]] std::string humanSize(std::uint64_t bytes);

/// "2026-11-21 04:50" in local time.
[[nodiscard]] std::string localMinute(const Date& date);
/// "2026-11-21T04:50:12.000000001Z"; the fraction only when there is one.
[[nodiscard]] std::string utcTimestamp(const Date& date);

/// A number's decimal text for JSON; null for what JSON cannot say.
[[nodiscard]] std::string jsonNumber(const Number& number);
/// A JSON string. Each byte that is no UTF-8 becomes U+FFFD.
[[nodiscard]] std::string jsonString(std::string_view text);
/// Appends `"name":"text"`, and, when the text is no UTF-8, `"nameBase64"` with its exact bytes.
void appendJsonText(std::string& out, std::string_view name, std::string_view text);
/// Any value. Data is base64; dates are timestamps; an error is an object of domain, code and user
/// info; endpoints are null.
[[nodiscard]] std::string jsonValue(const Value& value);
[[nodiscard]] std::string jsonObject(const Dictionary& dictionary);

}  // namespace corvalen::cli
