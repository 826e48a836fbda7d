// SPDX-License-Identifier: MIT
// All commands of corvalenctl: their table, its parser, and what a family offers to others.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/command.hpp"
#include "cli/report.hpp"
#include "corvalen/value.hpp"
#include "platform/authorization/authorization.hpp"

namespace corvalen {
struct OperationInfo;
}

namespace corvalen::cli {

/// Returns the commands in the order of the help.
[[nodiscard]] const std::vector<Command>& commandTable();
/// Returns null for an unknown command.
[[nodiscard]] const Command* findCommand(std::string_view name);

/// Returns example command lines of a command, separated by newlines; empty for an unknown one.
[[nodiscard]] std::string_view examplesOf(std::string_view command) noexcept;

/// Returns at most three of the names that a mistyped word may stand for, the nearest first: those
/// that begin with the word, and those within an edit distance of a third of its length.
[[nodiscard]] std::vector<std::string_view> suggestionsFor(
    std::string_view word, const std::vector<std::string_view>& names);

/// Returns the names of the permitted utilities, separated by spaces.
[[nodiscard]] std::string utilityNames();

/// The commands of each family, one source file each.
[[nodiscard]] std::span<const Command> helperCommands();
[[nodiscard]] std::span<const Command> fileCommands();
[[nodiscard]] std::span<const Command> treeCommands();
[[nodiscard]] std::span<const Command> settingCommands();
[[nodiscard]] std::span<const Command> processCommands();
[[nodiscard]] std::span<const Command> callCommands();

struct ParsedCommandLine {
    /// Null when there is nothing to run; `exitCode` and the texts then hold the result.
    const Command* command = nullptr;
    /// Whether --json was given; also set when there is nothing to run.
    bool wantsJson = false;
    Arguments arguments;
    int exitCode = kExitSuccess;
    std::string outputText;
    /// Without the program's name and a final newline. Has words as they were typed: not escaped
    /// for a terminal.
    std::string errorText;
};

/// Parses the words after the program's name.
[[nodiscard]] ParsedCommandLine parseCommandLine(const std::vector<std::string>& words);

// helper_commands.cpp

/// Shows whether the daemon answers and, with --rights, the outlook of each operation; returns the
/// exit code.
int runStatus(const Arguments& arguments);

/// Returns what the authority would answer this process for an operation, without an object. Does
/// not prompt.
[[nodiscard]] RightOutlook outlookOfOperation(AuthorizationService& authority,
                                              std::string_view operation);

/// Returns the authority of this machine, asked with the rights of this user.
[[nodiscard]] std::unique_ptr<AuthorizationService> authorityOfThisMachine();

// log_command.cpp

/// Lists the granted operations with user, program, object and outcome; returns the exit code.
int runLog(const Arguments& arguments);

/// Converts a local time to seconds since 1970: "2026-11-22", "2026-11-22 14:00", "14:00" (both
/// also with seconds), "today", "yesterday", or an age before `now` such as "2h" (s, min, m, h, d,
/// w). Throws UsageError for other texts.
[[nodiscard]] std::time_t parsePointOfTime(std::string_view text, std::time_t now);

// batch_command.cpp

/// Performs the operations of a file, one a line; returns the greatest exit code. Checks all lines
/// first. Throws UsageError.
int runBatch(const Arguments& arguments);

// uninstall_command.cpp

/// Returns the failure of `command` if a package owns the rights; nullopt if they may be removed.
[[nodiscard]] std::optional<Failure> refusalToRemoveRights(std::string_view command);

/// Asks, then lets the daemon remove its rights and its files; returns the exit code. Throws
/// UsageError.
int runUninstall(const Arguments& arguments);

// call_command.cpp

/// Returns the operation with this code or identifier. Throws UsageError for an unknown one.
[[nodiscard]] const OperationInfo& operationOf(std::string_view text);

/// Parses TYPE:VALUE: "S:text", "N:number" (decimal, floating-point, true, false),
/// "D:hexadecimal digits" or "D:@file". Throws UsageError for anything else.
[[nodiscard]] Value parseTypedValue(std::string_view text);

/// Returns the request of a `call`. Throws UsageError for an unknown operation or value.
[[nodiscard]] Request requestOfCall(const Arguments& arguments);
/// Performs the request of a `call`; returns the exit code.
int performCall(const Request& request, const Arguments& arguments);

/// Reads a whole file, or standard input for "-". Throws UsageError when it cannot be read, does
/// not fit into a request, or is standard input, a pipe or a socket for the second time.
[[nodiscard]] Data readContent(std::string_view path);

// file_commands.cpp

/// Converts a list in the short or long text form of acl(5), as in "u::rw-,u:ada:r--,g::r--,o::-",
/// to its external form: the kernel's attribute format, which is version 2 and little-endian
/// entries of tag, permissions and id. Adds a mask if named entries need one. Entries that begin
/// with "default:" or "d:" form a second list after the first. Throws UsageError.
[[nodiscard]] Data aclFromText(const std::string& text);

/// Returns up to four characters, padded with spaces, as a big-endian number; a number with 0x as
/// such; 0 for an empty text. Throws UsageError for anything else.
[[nodiscard]] std::uint32_t parseFourCharacterCode(const std::string& text);

}  // namespace corvalen::cli
