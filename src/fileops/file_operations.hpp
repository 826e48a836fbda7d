// SPDX-License-Identifier: MIT
// The file-system operations of the operation set.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "operations/method_table.hpp"
#include "platform/entry.hpp"
#include "platform/extended_acl.hpp"
#include "platform/file_flags.hpp"
#include "platform/file_manager.hpp"

namespace corvalen {

/// What stands for the file system of an object that cannot be examined.
inline constexpr std::uint32_t kNoFileSystemID = 0xFFFFFFFF;

/// The group of the file-system operations. Borrows the platform services, keeps no state: any
/// thread may call. Paths are bytes; one with a NUL byte gives POSIX error 22 everywhere.
///
/// Methods with an error parameter give false and fill it, when there is one, only on failure.
/// What links mean for each operation stands in platform/entry.hpp.
///
/// Durability: rewritten system files, created and moved objects and links are on the disk, names
/// included, when an operation succeeds; removals and changes of flags, dates, attributes and
/// lists, which can be made again, are not synced. The syncs are nearly all of the time: median
/// milliseconds with and without them, of 101 calls on ext4 on a virtual disk of a busy machine:
/// modify-systemfile 22 and 0.1, create-fileobject 12 and 0.1, create-link 4 and 0.6, a rename 8
/// and 0.02, a move of a file from a tmpfs 16 and 4, of 100 files 36 (one syncfs(2) for all).
class FileOperations : public OperationGroup {
  public:
    FileOperations(FileManager& fileManager, FileFlags& fileFlags,
                   ExtendedAcl& extendedAcl) noexcept
        : _fileManager(fileManager), _fileFlags(fileFlags), _extendedAcl(extendedAcl) {}

    void registerMethods(MethodTable& table) override;

    // Arguments as the operation table describes them; null for success.
    ErrorRef performOperationModifySystemfileWithArguments(const Array& arguments);
    ErrorRef performOperationCreateFileobjectWithArguments(const Array& arguments);
    ErrorRef performOperationRenameFileobjectWithArguments(const Array& arguments);
    ErrorRef performOperationDeleteFileobjectsWithArguments(const Array& arguments,
                                                            FeedbackConnection* feedbackConnection);
    ErrorRef performOperationDeleteFoldercontentsWithArguments(
        const Array& arguments, FeedbackConnection* feedbackConnection);
    /// Answers with the number 0 (nothing there), 1 (a folder) or 2 (something else). What cannot
    /// be looked at is a POSIX error, not 0.
    ErrorRef performOperationInspectFileobjectWithArguments(const Array& arguments);
    ErrorRef performOperationTouchFileobjectWithArguments(const Array& arguments);
    ErrorRef performOperationModifyProtectionWithArguments(const Array& arguments);
    ErrorRef performOperationModifyHfsattrWithArguments(const Array& arguments);
    ErrorRef performOperationCreateLinkWithArguments(const Array& arguments);
    ErrorRef performOperationModifyAclWithArguments(const Array& arguments);

    /// Type codes: "F" an empty file, "X" an executable one, "D" a folder; owned by root.
    ErrorRef createFileSystemObjectAtPath(const std::string& path, std::string_view withTypeCode);
    /// Replaces a file, keeps the old one beside it with the extension "backup". Null content
    /// fails. Not atomic: at any moment, also when the machine stops, the target or the backup has
    /// the whole old content; after success the new content is on the disk. A write that fails is
    /// not reported (the target is cut short then), but keeps the backup, whatever removeBackup
    /// says. After a failure nothing is moved back.
    ErrorRef overwriteSystemFileAtPath(const std::string& path, const Data* withContent,
                                       bool removeBackup);
    /// Without stopOnFirstError the failures of single paths are dropped.
    ErrorRef deleteFileSystemObjectsAtPaths(const Array& paths, bool recursive,
                                            bool stopOnFirstError,
                                            FeedbackConnection* feedbackConnection);

    bool enforceRemovalOfFileSystemObjectAtPath(const std::string& path, bool recursive,
                                                ErrorRef* error = nullptr);
    /// Clears the flags that may be cleared, then removes one object; links are not followed.
    bool enforceSingleRemovalOfFileSystemObjectAtPath(const std::string& path,
                                                      ErrorRef* error = nullptr);
    /// Clears the user immutable flag of everything first; a failure then has removed nothing.
    /// What does not exist, a dangling link included, counts as removed; what cannot be looked at
    /// does not.
    bool enforceRecursiveRemovalOfFileSystemObjectAtPath(const std::string& path,
                                                         ErrorRef* error = nullptr);
    /// Sets or clears the user immutable flag; of a link's target when the object is a link.
    bool setImmutableFlag(bool flag, const std::string& ofFileSystemObjectAtPath,
                          bool checkingExistenceOfLinkTarget, ErrorRef* error = nullptr);

    /// The device number of the object itself, or kNoFileSystemID.
    static std::uint32_t fileSystemIDForPath(const std::string& path) noexcept;

  private:
    /// `path` is the whole path of the object, for errors.
    bool enforceRecursiveRemoval(const ObjectAddress& address, std::string_view path,
                                 ErrorRef* error);
    /// Clears the flag of the object and of everything below it; of a link's target likewise.
    int unlockForRemoval(const ObjectAddress& address, const Object& object, bool* isGone);
    ErrorRef deleteContentsOfFolder(const Object& folder, const std::string& path);

    FileManager& _fileManager;
    FileFlags& _fileFlags;
    ExtendedAcl& _extendedAcl;
};

}  // namespace corvalen
