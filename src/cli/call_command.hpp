// SPDX-License-Identifier: MIT
// The arguments of `corvalenctl call`.
#pragma once

#include <string_view>

#include "corvalen/value.hpp"

namespace corvalen {
struct OperationInfo;
}

namespace corvalen::cli {

/// Returns the operation with this code or identifier. Throws UsageError for an unknown one.
[[nodiscard]] const OperationInfo& operationOf(std::string_view text);

/// A value written as TYPE:VALUE: "S:text", "N:number" (decimal, floating-point, true, false),
/// "D:hexadecimal digits" or "D:@file". A UsageError for anything else.
[[nodiscard]] Value parseTypedValue(std::string_view text);

/// From now on `readContent` refuses standard input: something else is read from it.
void takeStandardInput();

/// The whole content of a file, or of standard input for "-"; a UsageError when it cannot be read
/// or does not fit into a request.
[[nodiscard]] Data readContent(std::string_view path);

}  // namespace corvalen::cli
