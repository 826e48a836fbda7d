// SPDX-License-Identifier: MIT
// The number of objects in a tree, as far as the caller may read it.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace corvalen::cli {

/// A number of objects that were seen.
struct TreeCount {
    std::uint64_t objects = 0;
    /// False when there may be more: a directory could not be read, or the time was up.
    bool isComplete = true;
};

enum class CountedTop : std::uint8_t {
    /// Counts as well; a symlink is not followed.
    included,
    /// Only the objects below count; a symlink to a directory is followed.
    excluded,
};

/// Counts an object and everything below it with the rights of this process, without the daemon.
/// Does not enter other mounts. Stops counting at `end`. A missing object counts as 0, complete;
/// a directory that cannot be read as 0, incomplete. Blocks. Throws std::bad_alloc.
[[nodiscard]] TreeCount countTree(const std::string& path, CountedTop top,
                                  std::chrono::steady_clock::time_point end);

/// Formats a count as in "1,204 objects" or "at least 1,204 objects"; empty if nothing was seen and
/// there may be objects.
[[nodiscard]] std::string countText(const TreeCount& count);

}  // namespace corvalen::cli
