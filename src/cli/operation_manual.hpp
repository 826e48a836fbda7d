// SPDX-License-Identifier: MIT
// The descriptions of the operations as text for the terminal and for the manual page.
#pragma once

#include <string>
#include <string_view>

namespace corvalen {
struct OperationDescription;
}

namespace corvalen::cli {

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
