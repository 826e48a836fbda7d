// SPDX-License-Identifier: MIT
// Performs one operation for a command, and shows its feedback and its result.
#pragma once

#include "cli/command.hpp"

namespace corvalen {
struct OperationInfo;
}

namespace corvalen::cli {

/// Performs the operation of a command, after its question; returns the exit code. Throws
/// UsageError.
int runOperation(const Command& command, const Arguments& arguments);

/// Performs `operation` and shows its feedback and its answer, without a question; returns the exit
/// code.
int runRequest(const OperationInfo& operation, const Request& request, View view,
               const Arguments& arguments);

/// Throws UsageError if the process has no controlling terminal.
void requireTerminal();
/// Asks on the controlling terminal, independent of the standard streams; returns true for yes.
/// Throws like `requireTerminal`.
[[nodiscard]] bool confirm(std::string_view question);

/// Formats the answer of an operation for the view; empty if the view shows none.
[[nodiscard]] std::string answerText(const Dictionary& answer, View view,
                                     const Arguments& arguments, bool isTerminal);

}  // namespace corvalen::cli
