// SPDX-License-Identifier: MIT
// Failures as text or JSON on standard error; causes of denials, and their remedies.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "cli/command.hpp"
#include "corvalen/error.hpp"

namespace corvalen::cli {

/// Whether this program can let polkit ask the user for a password.
enum class PasswordPrompt : std::uint8_t {
    /// The user is root, or everybody may perform the operation.
    notNeeded,
    onThisTerminal,
    /// --no-ask-password was given.
    switchedOff,
    noTerminal,
};

struct Denial {
    /// The right of the operation.
    std::string right;
    ErrorRef error;
    PasswordPrompt prompt = PasswordPrompt::notNeeded;
    bool isRoot = false;
    bool hasPolkit = false;
    bool isRightMissing = false;
};

struct DenialText {
    std::string message;
    std::string advice;
};

/// Returns the cause, as far as the error and the machine show it, and the remedy.
[[nodiscard]] DenialText denialText(const Denial& denial);

/// Asks the authority about the right of `operation` if `error` can be its denial. Returns nullopt
/// for other errors, and for an EPERM that root got from the system, unless the right is missing.
[[nodiscard]] std::optional<Denial> examineDenial(std::string_view operation, const ErrorRef& error,
                                                  PasswordPrompt prompt);

/// A failure as a command reports it. The texts are not escaped.
struct Failure {
    /// Empty if the failure belongs to no command.
    std::string command = {};
    /// The object of the command; printed if the message does not name it.
    std::string subject = {};
    std::string message;
    /// The remedy.
    std::string advice = {};
    int exitCode = kExitFailure;
    ErrorRef error = nullptr;
    /// Number of objects handled before the operation stopped.
    std::optional<std::uint64_t> objectCount = std::nullopt;
};

/// Returns the failure of an operation or a call, with cause and remedy. Asks the authority after a
/// denial.
[[nodiscard]] Failure failureOf(std::string_view command, std::string_view subject,
                                const ErrorRef& error,
                                PasswordPrompt prompt = PasswordPrompt::notNeeded);
/// Formats a failure as lines without the last newline, escaped for a terminal.
[[nodiscard]] std::string failureText(const Failure& failure);
/// Formats a failure as {"error":{...}} without a newline.
[[nodiscard]] std::string failureJson(const Failure& failure);

/// Makes `report` print JSON from now on. To be called before threads start.
void reportAsJson();
/// Whether failures are printed as JSON.
[[nodiscard]] bool reportsAsJson() noexcept;
/// Prints a failure on standard error; returns its exit code.
int report(const Failure& failure);
/// Reports why connecting or registering failed; returns the exit code.
int reportNoSession(std::string_view socketPath, const ErrorRef& error);
/// Reports that standard output cannot be written; silent for EPIPE, since the reader left. Returns
/// the exit code.
int reportOutputFailure(int errnoValue);
/// Writes the output of a command; returns the exit code.
int writeOutput(std::string_view text);

/// Returns the exit code for an error, kExitSuccess for null.
[[nodiscard]] ExitCode exitCodeOf(const ErrorRef& error) noexcept;

/// Escapes a text for a terminal, and indents its lines after the first by `indent` spaces.
[[nodiscard]] std::string indentedLines(std::string_view text, std::size_t indent = 2);

}  // namespace corvalen::cli
