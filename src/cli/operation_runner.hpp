// SPDX-License-Identifier: MIT
// Performs one operation for a command, or previews it, and shows its feedback and its result.
#pragma once

#include <string>
#include <vector>

#include "cli/command.hpp"

namespace corvalen {
struct OperationInfo;
}

namespace corvalen::cli {

/// Returns the request of a command, after a check of the options of its output. Throws UsageError.
[[nodiscard]] Request checkedRequest(const Command& command, const Arguments& arguments);

/// Performs the operation of a command, or previews it, after its question; returns the exit code.
/// Throws UsageError.
int runOperation(const Command& command, const Arguments& arguments, Request request);

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

/// Lists the objects that the command would delete or change, with their number and size, and
/// changes nothing; returns the exit code. Objects below directories are found by the daemon's
/// searches, which need their own rights. Throws UsageError.
int runPreview(const Command& command, const Arguments& arguments);

/// Counts the objects of the trees that a request names, with the rights of this process, without
/// the daemon and without entering other mounts: one count for each of `progressPaths`, or else of
/// `subject`. Empty for a command that touches no trees. A missing object counts as 0, complete; a
/// directory that cannot be read as 0, incomplete. Blocks for about a second at most. Throws
/// std::bad_alloc.
[[nodiscard]] std::vector<TreeCount> countTrees(const Command& command, const Arguments& arguments,
                                                const Request& request);

/// Formats a count as in "1,204 objects" or "at least 1,204 objects"; empty if nothing was seen and
/// there may be objects.
[[nodiscard]] std::string treeCountText(const TreeCount& count);

}  // namespace corvalen::cli
