// SPDX-License-Identifier: MIT
// What the operations ask of a file system, object by object and tree by tree.
//
// Errors are Cocoa errors with the path concerned and the POSIX error underneath. A failed change
// is not undone unless it says so.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvalen/error.hpp"
#include "platform/file_flags.hpp"
#include "platform/object_address.hpp"

namespace corvalen {

/// What a new object gets, exactly: neither the file creation mask nor the folder it is made in
/// changes it.
struct CreationAttributes {
    mode_t permissions = 0;
    uid_t owner = 0;
    gid_t group = 0;
};

/// All that the system knows of an object and that another object can be given. The date of
/// creation is read but never given: Linux has no call that sets it.
struct FileAttributes {
    struct ExtendedAttribute {
        std::string name;
        std::vector<std::uint8_t> value;
    };
    struct statx status {};
    std::uint32_t flags = 0;
    /// Access lists among them: they are attributes of the system's name space.
    std::vector<ExtendedAttribute> extendedAttributes;
};

/// Any thread may call.
class FileManager {
  public:
    virtual ~FileManager() = default;

    /// Follows links; a dangling one does not exist.
    virtual bool fileExistsAtPath(const std::string& path, bool* isDirectory = nullptr) = 0;
    /// Of the object itself: a link is not followed.
    virtual std::optional<FileAttributes> attributesOfItemAtPath(const std::string& path,
                                                                 ErrorRef* error = nullptr) = 0;
    /// Gives the object, which must be a regular file or a folder, the owner, mode, extended
    /// attributes and flags. Sizes, dates and identities are not looked at. What the file system
    /// has no place for is left out.
    virtual bool setAttributes(const FileAttributes& attributes, const std::string& path,
                               ErrorRef* error = nullptr) = 0;
    /// Makes no folder above it.
    virtual bool createDirectoryAtPath(const std::string& path,
                                       const CreationAttributes& attributes,
                                       ErrorRef* error = nullptr) = 0;
    /// Nothing may stand at the path, a dangling link neither: root would write where it leads.
    virtual bool createFileAtPath(const std::string& path, std::string_view contents,
                                  const CreationAttributes& attributes) = 0;
    /// Moves an object; nothing may stand at the new path. Between file systems everything is
    /// copied with owner, mode, dates, flags and extended attributes, then the original is
    /// removed; hard links within become files of their own. A copy that fails is removed again;
    /// when the original cannot be removed, the copy stays.
    virtual bool moveItemAtPath(const std::string& from, const std::string& to,
                                ErrorRef* error = nullptr) = 0;
    /// A hard link at `to`; a symbolic link at `from` is linked itself.
    virtual bool linkItemAtPath(const std::string& from, const std::string& to,
                                ErrorRef* error = nullptr) = 0;
    virtual bool createSymbolicLinkAtPath(const std::string& path, const std::string& destination,
                                          ErrorRef* error = nullptr) = 0;
    /// Removes the object, a folder with all its contents, links themselves. Ends at the first
    /// failure, whose path the error carries. `path` is the object's whole path, for the error.
    virtual bool removeItem(const ObjectAddress& object, std::string_view path,
                            ErrorRef* error = nullptr) = 0;
    bool removeItemAtPath(const std::string& path, ErrorRef* error = nullptr) {
        return removeItem({AT_FDCWD, path.c_str()}, path, error);
    }
};

/// The kernel's file systems. `flags` is borrowed.
[[nodiscard]] std::unique_ptr<FileManager> makeFileManager(FileFlags& flags);

}  // namespace corvalen
