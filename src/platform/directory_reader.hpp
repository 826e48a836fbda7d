// SPDX-License-Identifier: MIT
// Reads folders relative to open folders: the system calls below every walk (openat(2),
// getdents64(2), statx(2)). Nothing here follows a link or resolves more than one component.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "corvalen/descriptor.hpp"

namespace corvalen {

/// What a directory entry tells of its object; `unknown` on file systems that tell nothing.
enum class EntryType : std::uint8_t {
    unknown,
    folder,
    symbolicLink,
    blockDevice,
    socket,
    other,
};

/// One entry as it lies in the buffer it was read into. `name` is NUL-terminated.
struct RawDirectoryEntry {
    std::string_view name;
    EntryType type = EntryType::unknown;
    /// Where to go on reading behind this entry (seekDirectory).
    std::int64_t position = 0;
    /// Bytes that the entry takes in the buffer.
    std::size_t length = 0;
};

/// An object's identity for as long as it exists.
struct FileIdentity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;

    friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};

/// A path without a link on its way is opened as a folder for reading; a link anywhere (one put
/// there since the path was resolved) is refused. Invalid with errno on failure.
[[nodiscard]] UniqueFd openResolvedDirectory(const char* path) noexcept;

/// The folder `name` (one component, not a link) inside `parent`. Never blocks and has no effect
/// on an object that is not a folder.
[[nodiscard]] UniqueFd openDirectoryAt(int parent, const char* name) noexcept;

/// A second, independently positioned descriptor of an open folder.
[[nodiscard]] UniqueFd reopenDirectory(int folder) noexcept;

/// The folder `name` inside `parent`, where ".." is the one that holds it, if it is the one with
/// this identity.
[[nodiscard]] UniqueFd openDirectoryIfSame(int parent, const char* name,
                                           const FileIdentity& expected) noexcept;

/// False with errno on failure.
bool readFileIdentity(int descriptor, FileIdentity* identity) noexcept;

/// Reads as many whole entries as fit into `buffer`, which is aligned to 8 bytes. The number of
/// bytes, 0 at the end, -1 with errno on failure.
[[nodiscard]] std::ptrdiff_t readDirectoryEntries(int folder, std::span<std::byte> buffer) noexcept;

/// The entry at the start of `buffer`, which holds at least one.
[[nodiscard]] RawDirectoryEntry directoryEntryAt(std::span<const std::byte> buffer) noexcept;

/// Reads go on behind the entry that told `position`.
bool seekDirectory(int folder, std::int64_t position) noexcept;

/// statx(2) of `name` inside `parent` itself, links not followed, automounts not triggered. False
/// with errno on failure.
bool examineAt(int parent, const char* name, unsigned mask, struct statx* attributes) noexcept;

/// statx(2) of an open object. False with errno on failure.
bool examineOpen(int descriptor, unsigned mask, struct statx* attributes) noexcept;

/// The device number in the attributes, as st_dev of stat(2) gives it.
[[nodiscard]] std::uint64_t deviceOf(const struct statx& attributes) noexcept;

}  // namespace corvalen
