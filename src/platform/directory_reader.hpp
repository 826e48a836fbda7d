// SPDX-License-Identifier: MIT
// The system calls below every walk: openat(2), getdents64(2), statx(2), relative to open
// directories. Nothing here follows a link or resolves more than one component. Failures leave
// errno.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "corvalen/descriptor.hpp"

namespace corvalen {

/// The type in a directory entry; `unknown` on file systems that store none there.
enum class EntryType : std::uint8_t {
    unknown,
    directory,
    symbolicLink,
    blockDevice,
    socket,
    other,
};

/// One entry as it lies in the buffer it was read into. `name` is NUL-terminated.
struct RawDirectoryEntry {
    std::string_view name;
    EntryType type = EntryType::unknown;
    std::uint64_t inode = 0;
    /// Where to go on reading behind this entry (seekDirectory).
    std::int64_t position = 0;
    /// Bytes that the entry takes in the buffer.
    std::size_t length = 0;
};

/// Opens the directory `name` (one component, not a link) in `parent` for reading. Never blocks and
/// has no effect on an object that is no directory.
[[nodiscard]] UniqueFd openDirectoryAt(int parent, const char* name) noexcept;

/// Reads as many whole entries as fit into `buffer`, which is aligned to 8 bytes. The number of
/// bytes, 0 at the end, -1 on failure.
[[nodiscard]] std::ptrdiff_t readDirectoryEntries(int directory,
                                                  std::span<std::byte> buffer) noexcept;

/// The entry at the start of `buffer`, which holds at least one.
[[nodiscard]] RawDirectoryEntry directoryEntryAt(std::span<const std::byte> buffer) noexcept;

/// The next read starts behind the entry with this `position`.
bool seekDirectory(int directory, std::int64_t position) noexcept;

/// statx(2) of `name` in `parent` itself, links not followed, automounts not triggered; and of an
/// open object.
bool examineAt(int parent, const char* name, unsigned mask, struct statx* attributes) noexcept;
bool examineOpen(int descriptor, unsigned mask, struct statx* attributes) noexcept;

/// Needs the type.
[[nodiscard]] EntryType entryTypeOf(const struct statx& attributes) noexcept;
/// The device number in the attributes, as st_dev of stat(2) gives it.
[[nodiscard]] std::uint64_t deviceOf(const struct statx& attributes) noexcept;

}  // namespace corvalen
