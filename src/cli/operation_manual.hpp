// SPDX-License-Identifier: MIT
// The descriptions of the operations as text for people and for the manual.
#pragma once

#include <string>
#include <string_view>

namespace corvalen {
struct OperationDescription;
}

namespace corvalen::cli {

/// The catalogue as an aligned table with a heading, and as one JSON object a line.
[[nodiscard]] std::string catalogueTable();
[[nodiscard]] std::string catalogueJson();

/// Everything about one operation, in lines.
[[nodiscard]] std::string operationText(const OperationDescription& description);

/// The same of all operations, in the language of scdoc(5).
[[nodiscard]] std::string operationsOfManual();
/// The codes of the operations' own error domain with their texts, in the language of scdoc(5).
[[nodiscard]] std::string errorCodesOfManual();

/// Text in which scdoc(5) finds nothing to format; lines after the first are indented by a tab.
[[nodiscard]] std::string manualText(std::string_view text);

}  // namespace corvalen::cli
