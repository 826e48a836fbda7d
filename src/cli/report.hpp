// SPDX-License-Identifier: MIT
// Failures in words, on standard error.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "cli/command.hpp"
#include "cli/denial.hpp"
#include "corvalen/error.hpp"

namespace corvalen::cli {

/// A failure as a command reports it. The texts are as they came: printing makes them safe.
struct Failure {
    /// Empty when the failure is of no single command.
    std::string command = {};
    /// What the command was about, when the message does not name it.
    std::string subject = {};
    std::string message;
    /// What can be done.
    std::string advice = {};
    int exitCode = kExitFailure;
    ErrorRef error = nullptr;
    /// How many objects were handled before an operation was stopped.
    std::optional<std::uint64_t> objectCount = std::nullopt;
};

/// The failure of an operation or of a call: what happened, and what can be done.
[[nodiscard]] Failure failureOf(std::string_view command, std::string_view subject,
                                const ErrorRef& error, Asking asking = Asking::notNeeded);
/// Several lines without the last newline, safe for a terminal.
[[nodiscard]] std::string failureText(const Failure& failure);
/// {"error":{...}} without a newline.
[[nodiscard]] std::string failureJson(const Failure& failure);

/// From now on failures are printed as JSON objects. Before threads are started.
void reportAsJson();
/// Prints a failure on standard error; gives its exit code.
int report(const Failure& failure);
/// Reports why no session with the helper could be had; gives the exit code.
int reportNoSession(std::string_view socketPath, const ErrorRef& error);
/// Reports that standard output cannot be written, except to a reader who left; gives the exit
/// code.
int reportOutputFailure(int errnoValue);
/// Writes all of a command's output; gives the exit code.
int writeOutput(std::string_view text);

[[nodiscard]] ExitCode exitCodeOf(const ErrorRef& error) noexcept;

/// The text safe for a terminal, its lines after the first led by `indent` spaces.
[[nodiscard]] std::string indentedLines(std::string_view text, std::size_t indent = 2);

}  // namespace corvalen::cli
