// SPDX-License-Identifier: MIT
// Text and JSON for output, and the texts of the catalogue.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "corvalen/value.hpp"

namespace corvalen {
struct OperationDescription;
}

namespace corvalen::cli {

/// Replaces control characters, invisible characters that change the writing direction or end a
/// line, and bytes that are not UTF-8 by \xNN for each byte. Keeps the characters of `allowed`.
[[nodiscard]] std::string escapedForTerminal(std::string_view text, std::string_view allowed = {});

/// Escapes a stream of bytes that arrives in pieces, except for newlines and tabs.
class TerminalFilter {
  public:
    /// Returns the escaped text up to the last complete character.
    [[nodiscard]] std::string pass(std::string_view bytes);
    /// Returns the rest. To be called last.
    [[nodiscard]] std::string finish();

  private:
    static constexpr std::string_view kShown = "\n\t";
    std::string _held;
};

/// Formats a size as in "1.4M": at most four digits, and a unit of 1024, none up to 1023 bytes.
[[nodiscard]] std::string humanSize(std::uint64_t bytes);

/// Formats a count as in "1,204 objects" or "1 object".
[[nodiscard]] std::string objectCountText(std::uint64_t count);

/// Formats a date as in "2026-11-21 04:50", in local time.
[[nodiscard]] std::string localMinute(const Date& date);
/// Formats a date as in "2026-11-21T04:50:12.000000001Z", without a fraction of 0.
[[nodiscard]] std::string utcTimestamp(const Date& date);

/// Formats a number for JSON; null for infinity and NaN.
[[nodiscard]] std::string jsonNumber(const Number& number);
/// Formats a JSON string. Characters that `escapedForTerminal` escapes become \uNNNN, and each byte
/// that is not UTF-8 becomes U+FFFD.
[[nodiscard]] std::string jsonString(std::string_view text);
/// Appends `"name":"text"`, and `"nameBase64"` with the exact bytes if the text is not UTF-8.
void appendJsonText(std::string& out, std::string_view name, std::string_view text);
/// Formats any value: data as base64, dates as timestamps, an error as an object of domain, code
/// and user info, endpoints as null.
[[nodiscard]] std::string jsonValue(const Value& value);
[[nodiscard]] std::string jsonObject(const Dictionary& dictionary);

/// Return the catalogue as an aligned table with a heading, or as one JSON object a line.
[[nodiscard]] std::string catalogueTable();
[[nodiscard]] std::string catalogueJson();

/// Return the full description of one operation, in lines or as one JSON object with a newline.
[[nodiscard]] std::string operationText(const OperationDescription& description);
[[nodiscard]] std::string operationJson(const OperationDescription& description);

/// Returns the descriptions of all operations as scdoc(5) source.
[[nodiscard]] std::string operationsOfManual();
/// Returns the codes of the operations' own error domain with their texts, as scdoc(5) source.
[[nodiscard]] std::string errorCodesOfManual();

/// Escapes the markup of scdoc(5) in a text, and indents lines after the first by a tab.
[[nodiscard]] std::string manualText(std::string_view text);

}  // namespace corvalen::cli
