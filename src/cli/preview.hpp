// SPDX-License-Identifier: MIT
// What a command would touch: the list of the dry run, and the number of objects.
#pragma once

#include <string>
#include <vector>

#include "cli/command.hpp"

namespace corvalen::cli {

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
