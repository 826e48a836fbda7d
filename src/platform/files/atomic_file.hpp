// SPDX-License-Identifier: MIT
// Files that are read and replaced as a whole.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "corvalen/descriptor.hpp"

namespace corvalen {

/// Returns whether `name` can be one component of a path and a line of a listing: 1 to 200 bytes,
/// no slash, no control character, not "." or "..". The limit leaves 55 bytes for prefixes and
/// suffixes.
[[nodiscard]] bool isSafeFileName(std::string_view name) noexcept;
inline constexpr std::size_t kLongestSafeFileName = 200;

/// Opens the directory `relativePath` below the open directory `base` without following links. With
/// `create`, creates missing directories with exactly `mode`. On failure returns an empty
/// descriptor and sets `*errnoValue`. The caller must keep ".." out of the path.
[[nodiscard]] UniqueFd openFolderBeneath(int base, std::string_view relativePath, mode_t mode,
                                         bool create, int* errnoValue);
/// The same for an absolute path with `create`; all but its last component must exist, and links in
/// them are followed.
[[nodiscard]] UniqueFd openStoreFolder(const std::string& path, mode_t mode, int* errnoValue);

/// Reads the regular file `name` of an open directory without blocking. Returns 0 or an errno:
/// EFBIG above `limit` bytes, ELOOP for a link, EINVAL for other kinds of objects.
[[nodiscard]] int readFile(int folder, const std::string& name, std::size_t limit,
                           std::string* contents);

/// Replaces or creates the regular file `name` of a directory that is open for reading. Atomic and
/// synced: readers, and the disk after a crash, have the old contents or the new. An existing file
/// keeps its permission bits, owner, ACL and extended attributes; a new one gets `mode` and the
/// caller's owner. Callers must exclude other writers of the file: the new contents are written to
/// ".<name>.new", over what a killed writer left. Returns 0 or an errno; on failure the old
/// file stands and nothing is left behind, unless only the last sync failed.
[[nodiscard]] int replaceFile(int folder, const std::string& name, std::string_view contents,
                              mode_t mode);

/// Takes the exclusive lock of the file `name` of an open directory, creating it with mode 0600,
/// and holds it until the descriptor is closed (open file description lock, fcntl(2)). Waits for
/// other holders at most `longestWait`, without it indefinitely. On failure returns an empty
/// descriptor and sets `*errnoValue` (EAGAIN: timeout).
[[nodiscard]] UniqueFd lockFile(int folder, const std::string& name,
                                std::optional<std::chrono::milliseconds> longestWait,
                                int* errnoValue);

}  // namespace corvalen
