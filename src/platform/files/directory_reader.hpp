// SPDX-License-Identifier: MIT
// The system calls of every walk: openat(2), getdents64(2), statx(2), relative to open directories.
// No function follows a link or resolves more than one component. The functions that run for each
// object return what the system call returns, and set errno.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "corvalen/descriptor.hpp"
#include "foundation/borrowed_descriptor.hpp"
#include "foundation/result.hpp"

namespace corvalen {

/// Open a directory for reading: never block, and have no effect on an object of another type.
inline constexpr int kListingFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;

/// The type in a directory entry; `unknown` on file systems that do not store it.
enum class EntryType : std::uint8_t {
    unknown,
    directory,
    symbolicLink,
    blockDevice,
    socket,
    other,
};

/// An entry in the buffer that it was read into. `name` is NUL-terminated.
struct RawDirectoryEntry {
    std::string_view name;
    EntryType type = EntryType::unknown;
    std::uint64_t inode = 0;
    /// Argument of seekDirectory() to continue after this entry.
    std::int64_t position = 0;
    /// Bytes of the entry in the buffer.
    std::size_t length = 0;
};

/// Opens the directory `name` (one component, not a link) in `parent` with `kListingFlags`.
[[nodiscard]] Result<UniqueFd> openDirectoryAt(Descriptor parent, const char* name) noexcept;

/// Reads as many whole entries as fit into `buffer`, which must be aligned to 8 bytes. Returns the
/// number of bytes, 0 at the end, -1 on failure.
[[nodiscard]] std::ptrdiff_t readDirectoryEntries(Descriptor directory,
                                                  std::span<std::byte> buffer) noexcept;

/// Returns the first entry in `buffer`, which must hold one. The name points into `buffer`.
[[nodiscard]] RawDirectoryEntry directoryEntryAt(std::span<const std::byte> buffer) noexcept;

/// Appends an entry in the form that directoryEntryAt() reads.
void appendDirectoryEntry(std::vector<std::byte>& buffer, const RawDirectoryEntry& entry);

/// The next read starts after the entry with this `position`. Returns false on failure.
bool seekDirectory(Descriptor directory, std::int64_t position) noexcept;

/// Returns whether the directory's file system has inodes on a disk, in an order that makes access
/// to them faster: neither in memory nor on a server. True if that is unknown.
[[nodiscard]] bool hasInodesOnDisk(Descriptor directory) noexcept;

/// Call statx(2) on `name` in `parent`, without following links or triggering automounts, and on an
/// open object. Return false on failure.
bool examineAt(Descriptor parent, const char* name, unsigned mask,
               struct statx* attributes) noexcept;
bool examineOpen(Descriptor descriptor, unsigned mask, struct statx* attributes) noexcept;

/// `attributes` must hold the type (STATX_TYPE).
[[nodiscard]] EntryType entryTypeOf(const struct statx& attributes) noexcept;
/// Returns the device number in the form of st_dev of stat(2).
[[nodiscard]] std::uint64_t deviceOf(const struct statx& attributes) noexcept;

}  // namespace corvalen
