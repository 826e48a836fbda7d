// SPDX-License-Identifier: MIT
// What the operations ask of a file system, object by object and tree by tree.
//
// Errors are Cocoa errors with the path concerned and the POSIX error underneath; an operation
// whose client has gone gives the POSIX error ECANCELED. A failed change is not undone unless it
// says so.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "corvalen/error.hpp"
#include "platform/entry.hpp"
#include "platform/file_flags.hpp"

namespace corvalen {

/// An entry with the path by which the client named it, which errors carry. Borrows both.
struct NamedEntry {
    const Entry& entry;
    std::string_view path;
};

/// Any thread may call. What is answered with success is on the disk, names included.
class FileManager {
  public:
    virtual ~FileManager() = default;

    /// Moves an object, a link itself; nothing may stand at the new entry.
    ///
    /// Between file systems it is copied with owner, mode, dates and extended attributes, then the
    /// original is removed. All of it or nothing: the copy grows in a private directory beside the
    /// destination and gets its name when it is complete and on the disk; a copy that fails is
    /// removed. Before anything is copied these fail: a locked object anywhere in it or a locked
    /// directory above it (EPERM), a mount below it (EBUSY), a read-only file system (EROFS). What
    /// the other file system has no place for, or refuses (owners on FAT), is left out as mv(1)
    /// does, the set-ID bits with the owner; a kind of object that it refuses is a failure. Default
    /// lists of the new directory do not apply. Hard links within become files of their own. When
    /// nothing of the original can be removed the copy goes again; when only a part of it can, the
    /// whole copy stays beside the rest.
    virtual bool moveItem(const NamedEntry& from, const NamedEntry& to,
                          ErrorRef* error = nullptr) = 0;
    /// A hard link at `to`; a symbolic link at `from` is linked itself.
    virtual bool linkItem(const NamedEntry& from, const NamedEntry& to,
                          ErrorRef* error = nullptr) = 0;
    virtual bool createSymbolicLink(const NamedEntry& at, const std::string& destination,
                                    ErrorRef* error = nullptr) = 0;
    /// Removes the object, a directory with all its contents, links themselves. Ends at the first
    /// failure, whose path the error carries, and at a mount with EBUSY, which keeps its contents.
    /// `object` has an open parent; `path` is its whole path, for the error. Not synced.
    virtual bool removeItem(const ObjectAddress& object, std::string_view path,
                            ErrorRef* error = nullptr) = 0;
};

/// The kernel's file systems. `flags` is borrowed.
[[nodiscard]] std::unique_ptr<FileManager> makeFileManager(FileFlags& flags);

}  // namespace corvalen
