// SPDX-License-Identifier: MIT
// Files that are read and replaced as a whole: their bytes, or the dictionary of a property list.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "corvalen/descriptor.hpp"
#include "corvalen/value.hpp"
#include "foundation/borrowed_descriptor.hpp"
#include "foundation/result.hpp"

namespace corvalen {

/// Returns whether `name` can be one component of a path and a line of a listing: 1 to 200 bytes,
/// no slash, no control character, not "." or "..". The limit leaves 55 bytes for prefixes and
/// suffixes.
[[nodiscard]] bool isSafeFileName(std::string_view name) noexcept;
inline constexpr std::size_t kLongestSafeFileName = 200;

/// Opens the directory `relativePath` below the open directory `base` without following links. With
/// `create`, creates missing directories with exactly `mode`. The caller must keep ".." out of the
/// path.
[[nodiscard]] Result<UniqueFd> openFolderBeneath(Descriptor base, std::string_view relativePath,
                                                 mode_t mode, bool create);
/// The same for an absolute path with `create`; all but its last component must exist, and links in
/// them are followed.
[[nodiscard]] Result<UniqueFd> openStoreFolder(const std::string& path, mode_t mode);

/// Reads the regular file `name` of an open directory without blocking. EFBIG above `limit`
/// bytes, ELOOP for a link, EINVAL for other kinds of objects.
[[nodiscard]] Result<std::string> readFile(Descriptor folder, const std::string& name,
                                           std::size_t limit);

/// Replaces or creates the regular file `name` of a directory that is open for reading. Atomic and
/// synced: readers, and the disk after a crash, have the old contents or the new. An existing file
/// keeps its permission bits, owner, ACL and extended attributes; a new one gets `mode` and the
/// caller's owner. Callers must exclude other writers of the file: before the rename the new file
/// is named ".<name>.new", in place of what a killed writer left. On failure the old file stands
/// and nothing is left behind, unless only the last sync failed.
[[nodiscard]] Result<> replaceFile(Descriptor folder, const std::string& name,
                                   std::string_view contents, mode_t mode);

/// Takes the exclusive lock of the file `name` of an open directory, creating it with mode 0600,
/// and holds it until the descriptor is closed (open file description lock, fcntl(2)). Waits for
/// other holders at most `longestWait` (then EAGAIN), without it indefinitely.
[[nodiscard]] Result<UniqueFd> lockFile(Descriptor folder, const std::string& name,
                                        std::optional<std::chrono::milliseconds> longestWait);

/// In bytes.
inline constexpr std::size_t kMaximumPropertyListFileSize = std::size_t{16} * 1024 * 1024;

/// Reads the dictionary in the file `name` of an open directory; empty if the file is missing or
/// empty. Returns std::nullopt if the file cannot be read or has other contents.
[[nodiscard]] std::optional<Dictionary> readPropertyListFile(Descriptor folder,
                                                             const std::string& name);

/// Replaces the file as `replaceFile` does. EINVAL, without writing, for a dictionary that
/// could not be read back unchanged, EFBIG for one that is too large.
[[nodiscard]] Result<> writePropertyListFile(Descriptor folder, const std::string& name,
                                             const Dictionary& dictionary, mode_t mode);

}  // namespace corvalen
