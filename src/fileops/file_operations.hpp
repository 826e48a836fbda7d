// SPDX-License-Identifier: MIT
// The file-system operations of the operation set.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "operations/operation_rows.hpp"
#include "platform/files/entry.hpp"
#include "platform/files/extended_acl.hpp"
#include "platform/files/file_flags.hpp"
#include "platform/files/file_manager.hpp"
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
/// lists are not synced: they can be repeated. The syncs take most of the time. Medians in
/// milliseconds with and without them, of 101 calls on ext4 on a virtual disk of a busy machine:
/// modify-systemfile 22 and 0.1, create-fileobject 12 and 0.1, create-link 4 and 0.6, a rename 8
/// and 0.02, a move of a file from a tmpfs 16 and 4, of 100 files 36 (one syncfs(2) for all).
class FileOperations : public GroupOfRows<FileOperations> {
  public:
    FileOperations(FileManager& fileManager, FileFlags& fileFlags,
                   ExtendedAcl& extendedAcl) noexcept
        : _fileManager(fileManager), _fileFlags(fileFlags), _extendedAcl(extendedAcl) {}

    // The operation table describes the arguments. Each returns null on success.
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
    /// Replaces a file and keeps the old one beside it with the extension "backup". Null content
    /// fails. Not atomic: at any moment, even at a power cut, the target or the backup has the
    /// whole old content. After success the new content is on the disk. A failed write is not
    /// reported (the target is truncated then), but keeps the backup even with removeBackup. After
    /// a failure nothing is moved back.
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

}  // namespace corvalen
