// SPDX-License-Identifier: MIT
// The call command, which sends any operation with typed arguments, and their parsing.
#pragma once

#include <string_view>

#include "corvalen/value.hpp"

namespace corvalen {
struct OperationInfo;
}

namespace corvalen::cli {

/// Returns the operation with this code or identifier. Throws UsageError for an unknown one.
[[nodiscard]] const OperationInfo& operationOf(std::string_view text);

/// Parses TYPE:VALUE: "S:text", "N:number" (decimal, floating-point, true, false),
/// "D:hexadecimal digits" or "D:@file". Throws UsageError for anything else.
[[nodiscard]] Value parseTypedValue(std::string_view text);

/// Makes `readContent` refuse standard input from now on, because the batch is read from it.
void reserveStandardInput();

/// Reads a whole file, or standard input for "-". Throws UsageError when it cannot be read or does
/// not fit into a request.
[[nodiscard]] Data readContent(std::string_view path);

}  // namespace corvalen::cli
