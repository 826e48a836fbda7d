// SPDX-License-Identifier: MIT
// Text for terminals and for programs.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "corvalen/value.hpp"

namespace corvalen::cli {

/// Control characters, invisible characters that turn the writing direction or end a line, and
/// bytes that are no UTF-8 as \xNN, byte by byte; everything else, and what `allowed` contains, as
/// it is.
[[nodiscard]] std::string escapedForTerminal(std::string_view text, std::string_view allowed = {});

/// Escapes a stream of bytes that arrives in pieces, except for line ends and tabs.
class TerminalFilter {
  public:
    /// What can be shown now.
    [[nodiscard]] std::string pass(std::string_view bytes);
    /// The rest, when nothing more comes.
    [[nodiscard]] std::string finish();

  private:
    static constexpr std::string_view kShown = "\n\t";
    std::string _held;
};

/// "1.4M": three digits at most and a unit of 1024; bytes up to 1023 have no unit.
[[nodiscard]] std::string humanSize(std::uint64_t bytes);

/// "1,204 objects", "1 object".
[[nodiscard]] std::string objectCountText(std::uint64_t count);

/// "2026-11-21 04:50" in local time.
[[nodiscard]] std::string localMinute(const Date& date);
/// "2026-11-21T04:50:12.000000001Z"; the fraction only when there is one.
[[nodiscard]] std::string utcTimestamp(const Date& date);

/// A number's decimal text for JSON; null for what JSON cannot say.
[[nodiscard]] std::string jsonNumber(const Number& number);
/// A JSON string. What `escapedForTerminal` escapes is written as \uNNNN; each byte that is no
/// UTF-8 becomes U+FFFD.
[[nodiscard]] std::string jsonString(std::string_view text);
/// Appends `"name":"text"`, and, when the text is no UTF-8, `"nameBase64"` with its exact bytes.
void appendJsonText(std::string& out, std::string_view name, std::string_view text);
/// Any value. Data is base64; dates are timestamps; an error is an object of domain, code and user
/// info; endpoints are null.
[[nodiscard]] std::string jsonValue(const Value& value);
[[nodiscard]] std::string jsonObject(const Dictionary& dictionary);

}  // namespace corvalen::cli
