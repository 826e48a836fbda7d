// SPDX-License-Identifier: MIT
// Files that are read and replaced whole.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "corvalen/descriptor.hpp"

namespace corvalen {

/// Whether `name` can be one component of a path and a line of a listing: 1 to 200 bytes, no slash,
/// no control character, not "." or "..". The rest of the 255 bytes is for what is put around it.
[[nodiscard]] bool isSafeFileName(std::string_view name) noexcept;
inline constexpr std::size_t kLongestSafeFileName = 200;

/// Opens the folder `relativePath` below the open folder `base`, following no link, and creates
/// what is missing of it with exactly `mode`, owned by the caller. Empty with the errno in
/// `*errnoValue` on failure; without `create`, ENOENT tells that it is not there.
[[nodiscard]] UniqueFd openFolderBeneath(int base, std::string_view relativePath, mode_t mode,
                                         bool create, int* errnoValue);
/// The same for an absolute path, all of which but its last component exists and is trusted.
[[nodiscard]] UniqueFd openStoreFolder(const std::string& path, mode_t mode, int* errnoValue);

/// Reads the regular file `name` of an open folder. 0 or the errno: EFBIG above `limit` bytes,
/// ELOOP for a link, EINVAL for another kind of object, on which it never waits.
[[nodiscard]] int readFile(int folder, const std::string& name, std::size_t limit,
                           std::string* contents);

/// Replaces or creates the regular file `name` of a folder opened for reading: whoever looks, and
/// whenever the machine stops, finds the old contents or the new, both synced. An existing file's
/// mode (less the set-id bits), owner, ACL and extended attributes are kept; a new one has `mode`
/// and the caller's owner. Writers of one file exclude each other: the new contents are written to
/// ".<name>.new", which replaces what a killed writer left there. 0 or the errno; the old file
/// stands and nothing is left behind unless all was done but the last sync.
[[nodiscard]] int replaceFile(int folder, const std::string& name, std::string_view contents,
                              mode_t mode);

/// Takes the exclusive lock of the file `name` of a folder, which is created with mode 0600, and
/// holds it as long as the descriptor lives (open file description lock, fcntl(2)). Waits for other
/// holders, for ever or no longer than told. Empty with the errno (EAGAIN: held too long) on
/// failure.
[[nodiscard]] UniqueFd lockFile(int folder, const std::string& name,
                                std::optional<std::chrono::milliseconds> longestWait,
                                int* errnoValue);

}  // namespace corvalen
