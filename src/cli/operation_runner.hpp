// SPDX-License-Identifier: MIT
// Performs one operation for a command and shows its feedback and its result.
#pragma once

#include "cli/command.hpp"

namespace corvalen {
struct OperationInfo;
}

namespace corvalen::cli {

/// Performs the operation of a command; gives the exit code.
int runOperation(const Command& command, const Arguments& arguments);

/// Performs `operation` with the request and shows everything that it can send; `name` leads error
/// texts.
int runRequest(const OperationInfo& operation, const Request& request, View view,
               const Arguments& arguments);

/// Throws a UsageError when the program has no controlling terminal to ask on.
void requireTerminal();
/// Asks on the controlling terminal, whatever the standard streams are; true for a yes. Throws like
/// `requireTerminal`.
[[nodiscard]] bool confirm(std::string_view question);

/// The answer of an operation as the view shows it; empty when there is nothing to show.
[[nodiscard]] std::string answerText(const Dictionary& answer, View view,
                                     const Arguments& arguments, bool isTerminal);

}  // namespace corvalen::cli
