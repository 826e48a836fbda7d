// SPDX-License-Identifier: MIT
// Changes of file systems that operations need, object by object and tree by tree.
//
// Errors are Cocoa errors with the path concerned and the POSIX error underneath; after a
// cancellation, the POSIX error ECANCELED. A failed change is not undone unless its function says
// so.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "corvalen/error.hpp"
#include "platform/files/entry.hpp"
#include "platform/files/file_attributes.hpp"

namespace corvalen {

/// An entry and the path that the client gave for it, which errors carry. Borrows both.
struct NamedEntry {
    const Entry& entry;
    std::string_view path;
};

/// Any thread may call. After success the change is on the disk, names included, unless its
/// function says otherwise.
class FileManager {
  public:
    virtual ~FileManager() = default;

    /// Moves an object, a link itself. Fails if the new entry exists.
    ///
    /// Between file systems it copies the object with owner, mode, dates and extended attributes,
    /// then removes the original; all or nothing. The copy is made in a private directory beside
    /// the destination, renamed when it is complete and on the disk, and removed on failure. These
    /// fail before anything is copied: a locked object in the tree or a locked directory above it
    /// (EPERM), a mount below it (EBUSY), a read-only file system (EROFS). Like mv(1), it skips
    /// what the other file system does not support or refuses (owners on FAT, and with them the
    /// set-ID bits); a kind of object that it refuses is a failure. Default lists of the new
    /// directory do not apply. Hard links within the tree become separate files. If nothing of the
    /// original can be removed, the copy is removed; if only a part can, the whole copy and the
    /// rest stay.
    virtual bool moveItem(const NamedEntry& from, const NamedEntry& to,
                          ErrorRef* error = nullptr) = 0;
    /// Creates a hard link at `to`; a symlink at `from` is linked itself.
    virtual bool linkItem(const NamedEntry& from, const NamedEntry& to,
                          ErrorRef* error = nullptr) = 0;
    virtual bool createSymbolicLink(const NamedEntry& at, const std::string& destination,
                                    ErrorRef* error = nullptr) = 0;
    /// Removes the object, a directory with all its contents, a link itself. Ends at the first
    /// failure, whose path the error carries, and with EBUSY at a mount, which keeps its contents.
    /// `object` has an open parent; `path` is its whole path, for the error. Not synced.
    virtual bool removeItem(const ObjectAddress& object, std::string_view path,
                            ErrorRef* error = nullptr) = 0;
};

/// Borrows `flags`, which must outlive it.
[[nodiscard]] std::unique_ptr<FileManager> makeFileManager(FileFlags& flags);

}  // namespace corvalen
