// SPDX-License-Identifier: MIT
// The file-system operations of the operation set, and what they share.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "corvalen/error.hpp"
#include "operations/operation_rows.hpp"
#include "platform/files/entry.hpp"
#include "platform/files/extended_acl.hpp"
#include "platform/files/file_attributes.hpp"
#include "platform/files/file_manager.hpp"
#include "platform/files/object_address.hpp"
#include "platform/files/tree_walk.hpp"

namespace corvalen {

/// Returned in place of a device number when statx(2) fails.
inline constexpr std::uint32_t kNoFileSystemID = 0xFFFFFFFF;

/// The file-system operations. Borrows the platform services and keeps no state: any thread may
/// call. Paths are bytes; a NUL byte in a path is POSIX error 22 everywhere.
///
/// Methods with an `error` parameter return false on failure, and only then fill `*error` unless
/// `error` is null. platform/files/entry.hpp lists which operations follow symlinks.
///
/// Durability: when an operation succeeds, rewritten system files, created and moved objects and
/// links are on the disk, names included. Removals and changes of flags, dates, attributes and
/// lists are not synced: they can be repeated. The syncs take most of the time (bench/README.md).
class FileOperations : public GroupOfRows<FileOperations> {
  public:
    FileOperations(FileManager& fileManager, FileFlags& fileFlags,
                   ExtendedAcl& extendedAcl) noexcept
        : _fileManager(fileManager), _fileFlags(fileFlags), _extendedAcl(extendedAcl) {}

    // Each file describes its arguments: S is a string, N a number, D data. Each method returns
    // null on success.
    ErrorRef performOperationModifySystemfileWithArguments(const Array& arguments);
    ErrorRef performOperationCreateFileobjectWithArguments(const Array& arguments);
    ErrorRef performOperationRenameFileobjectWithArguments(const Array& arguments);
    ErrorRef performOperationDeleteFileobjectsWithArguments(const Array& arguments,
                                                            FeedbackConnection* feedbackConnection);
    ErrorRef performOperationDeleteFoldercontentsWithArguments(
        const Array& arguments, FeedbackConnection* feedbackConnection);
    /// Returns the answer 0 (nothing there), 1 (a directory) or 2 (another object). An object that
    /// cannot be examined is a POSIX error, not 0.
    ErrorRef performOperationInspectFileobjectWithArguments(const Array& arguments);
    ErrorRef performOperationTouchFileobjectWithArguments(const Array& arguments);
    ErrorRef performOperationModifyProtectionWithArguments(const Array& arguments);
    ErrorRef performOperationModifyHfsattrWithArguments(const Array& arguments);
    ErrorRef performOperationCreateLinkWithArguments(const Array& arguments);
    ErrorRef performOperationModifyAclWithArguments(const Array& arguments);

    /// Type codes: "F" empty file, "X" empty executable file, "D" directory. Owned by root.
    ErrorRef createFileSystemObjectAtPath(const std::string& path, std::string_view withTypeCode);
    /// Replaces a file and keeps the old one beside it with the extension "backup";
    /// modify_systemfile.cpp says what holds at each moment. Null content fails.
    ErrorRef overwriteSystemFileAtPath(const std::string& path, const Data* withContent,
                                       bool removeBackup);
    /// Without stopOnFirstError, ignores the failures of single paths.
    ErrorRef deleteFileSystemObjectsAtPaths(const Array& paths, bool recursive,
                                            bool stopOnFirstError,
                                            FeedbackConnection* feedbackConnection);

    bool enforceRemovalOfFileSystemObjectAtPath(const std::string& path, bool recursive,
                                                ErrorRef* error = nullptr);
    /// Clears the flags that may be cleared, then removes one object. Follows no symlink.
    bool enforceSingleRemovalOfFileSystemObjectAtPath(const std::string& path,
                                                      ErrorRef* error = nullptr);
    /// Clears the user immutable flag of the whole tree first; if that fails, nothing is removed.
    /// A missing object and a dangling symlink count as removed; an object that cannot be examined
    /// does not.
    bool enforceRecursiveRemovalOfFileSystemObjectAtPath(const std::string& path,
                                                         ErrorRef* error = nullptr);
    /// Sets or clears the user immutable flag; follows a symlink. If its target cannot be opened,
    /// fails with ENOENT when checkingExistenceOfLinkTarget, else succeeds.
    bool setImmutableFlag(bool flag, const std::string& ofFileSystemObjectAtPath,
                          bool checkingExistenceOfLinkTarget, ErrorRef* error = nullptr);

    /// Returns the device number of the object itself, or kNoFileSystemID.
    static std::uint32_t fileSystemIDForPath(const std::string& path) noexcept;

  private:
    /// `path` is the object's whole path, used in errors only.
    bool enforceRecursiveRemoval(const ObjectAddress& address, std::string_view path,
                                 ErrorRef* error);
    /// Clears the flag of the object and everything below it. EBUSY at a mount.
    Result<> unlockForRemoval(const ObjectAddress& address, const Object& object);
    Result<> unlockTree(const Object& top, TreeWalkOptions::Mounts mounts);
    ErrorRef deleteContentsOfFolder(const Object& folder, const std::string& path);

    FileManager& _fileManager;
    FileFlags& _fileFlags;
    ExtendedAcl& _extendedAcl;
};

// What several operations use: the entry at a path, and the user immutable flag of single objects
// and trees.

/// Opens the entry that `path` names. Fails with a Cocoa error with the path; an empty path fails
/// like a missing one.
[[nodiscard]] Result<Entry, ErrorRef> openNamed(const std::string& path);

/// Sets or clears the flag of `object`, whose statx(2) result is `attributes`. Makes no system
/// call if they already report the wanted value. Clearing succeeds on file systems without flags.
[[nodiscard]] Result<> changeImmutableFlag(FileFlags& fileFlags, const ObjectAddress& object,
                                           const struct statx& attributes, bool flag);

/// The scope of a change of a tree. Borrows the attributes and the cancellation.
struct FlagChangeBounds {
    /// The change stays on the mount of the object with these attributes, read with
    /// objectStatxMask(). Null for all mounts.
    const struct statx* volume = nullptr;
    TreeWalkOptions::Mounts mounts = TreeWalkOptions::Mounts::entered;
    Cancellation& cancellation;
    /// Whether to add the objects to the count of the cancellation.
    bool counts = true;
};

/// Sets or clears the flag of everything below the open directory, each directory before its
/// contents, and of the targets of symlinks. Skips types without flags, and directories that were
/// removed or replaced meanwhile. The first failure ends it: EBUSY at a refused mount, ECANCELED
/// when cancelled.
[[nodiscard]] Result<> changeImmutableFlagsBelow(FileFlags& fileFlags, Descriptor directory,
                                                 bool flag, const FlagChangeBounds& bounds);

/// Returns the low 32 bits of the device number.
[[nodiscard]] std::uint32_t deviceIdentifier(const struct statx& attributes) noexcept;

}  // namespace corvalen
