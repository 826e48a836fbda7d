// SPDX-License-Identifier: MIT
// Failures in words, on standard error.
#pragma once

#include <string>
#include <string_view>

#include "cli/command.hpp"
#include "corvalen/error.hpp"

namespace corvalen::cli {

/// What is printed for a failed operation: the command, what it was about, what happened, what can
/// be done. Several lines without the last newline, safe for a terminal.
[[nodiscard]] std::string failureText(std::string_view command, std::string_view subject,
                                      const ErrorRef& error);
/// Prints it and gives the exit code of the failure's kind.
int reportFailure(std::string_view command, std::string_view subject, const ErrorRef& error);

/// Reports why no session with the helper could be had; gives the exit code.
int reportNoSession(std::string_view socketPath, const ErrorRef& error);

/// The text safe for a terminal, its lines after the first led by `indent` spaces.
[[nodiscard]] std::string indentedLines(std::string_view text, std::size_t indent = 2);

[[nodiscard]] ExitCode exitCodeOf(const ErrorRef& error) noexcept;

}  // namespace corvalen::cli
