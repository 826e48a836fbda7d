// SPDX-License-Identifier: MIT
// modify-systemfile: replaces the content of a file, symlinks followed. The old file becomes
// PATH.backup; the new one gets its attributes. Every step uses the same open directory. Arguments:
// path (S), the whole new content (D), remove the backup after success (N, a Boolean).
//
// Not atomic: at any moment, even at a power cut, the target or the backup has the whole old
// content. After success the new content is on the disk. A failed write is not reported (the target
// is truncated then), but keeps the backup even if it was to be removed. After a failure nothing is
// moved back.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "fileops/file_operations.hpp"
#include "foundation/borrowed_descriptor.hpp"
#include "foundation/path.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "platform/files/file_attributes.hpp"
#include "platform/files/file_manager.hpp"
#include "platform/files/object_address.hpp"

namespace corvalen {
namespace {

constexpr std::string_view kBackupExtension = "backup";
/// Only root may open the new file before its attributes are set: a descriptor opened until then
/// would stay writable.
constexpr mode_t kModeUntilAttributesAreSet = 0600;

/// IMA and EVM signatures do not fit the new file.
bool belongsToContent(const FileAttributes::ExtendedAttribute& attribute) noexcept {
    return attribute.name == "security.ima" || attribute.name == "security.evm";
}

void dropWhatBelongsToContent(FileAttributes* attributes) {
    auto& all = attributes->extendedAttributes;
    all.erase(std::remove_if(all.begin(), all.end(), belongsToContent), all.end());
}

ErrorRef writeError(SystemError error, const std::string& path) {
    return makeFileError(FileAccess::write, error, path);
}

bool isAt(const ObjectAddress& address, const Object& object) {
    const Result<Object> found = openObject(address);
    return found && isSameObject(found->status, object.status);
}

/// One replacement. A step that returns an error ends it.
class Replacement {
  public:
    Replacement(FileFlags& fileFlags, LocatedObject old, std::string path)
        : _fileFlags(fileFlags),
          _entry(std::move(old.entry)),
          _old(std::move(old.object)),
          _path(std::move(path)),
          _backupPath(appendPathExtension(_path, kBackupExtension)),
          _backupName(appendPathExtension(_entry.name().text(), kBackupExtension)) {}

    ErrorRef run(std::string_view content, bool removeBackup) {
        if (ErrorRef error = removeOldBackup()) return error;
        Result<FileAttributes> carried = readAllAttributes(_old.descriptor, _fileFlags);
        if (!carried) return makeFileError(FileAccess::read, carried.error(), _path);
        dropWhatBelongsToContent(&*carried);
        if (ErrorRef error = moveAside()) return error;
        const Result<UniqueFd> file = makeFile(_entry.address(), kModeUntilAttributesAreSet);
        if (!file) return writeError(file.error(), _path);
        // Kept: a failed write alone is not reported, and nothing is moved back.
        const bool written = writeAll(*file, content).has_value();
        Result<> completed = applyAllAttributes(*file, _fileFlags, *carried, {.flags = true});
        if (completed) completed = syncObject(*file);
        if (completed) completed = syncDirectory(_entry.parent());
        if (!completed) return writeError(completed.error(), _path);
        if (removeBackup && written) dropBackup();
        return nullptr;
    }

  private:
    [[nodiscard]] ObjectAddress backup() const noexcept {
        return {_entry.parent(), _backupName.c_str()};
    }

    /// A dangling symlink counts as no backup and stays; the rename then fails with EEXIST.
    ErrorRef removeOldBackup() {
        const Result<Object> existing =
            openObject({_entry.parent(), _backupName.c_str(), /*followLink=*/true});
        if (!existing) return nullptr;
        if (existing->isDirectory()) {
            return makeOperationError(OperationErrorCode::backupBlockedByFolder,
                                      {{_backupPath}, _backupPath});
        }
        // Fails for a directory that took its place since.
        const bool removed = ::unlinkat(_entry.parent().get(), _backupName.c_str(), 0) == 0;
        return removed ? nullptr : writeError({errno}, _backupPath);
    }

    /// Syncs the old content first: after the rename the backup is its only name.
    ErrorRef moveAside() {
        const Result<> moved = syncOld().and_then([this] { return renameToBackup(); });
        if (moved) return nullptr;
        // ENOSPC: there is no space for the name of the backup.
        const bool aboutBackup = failedWith(moved, EEXIST) || failedWith(moved, ENOSPC);
        ErrorRef error = writeError(moved.error(), aboutBackup ? _backupPath : _path);
        return makeOperationError(OperationErrorCode::objectProtected,
                                  {{_path}, _path, std::move(error)});
    }

    [[nodiscard]] Result<> syncOld() const {
        if (!S_ISREG(_old.status.stx_mode)) return {};
        const DescriptorPath same(_old.descriptor);
        return openedBy(::open(same.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC))
            .and_then([](const UniqueFd& opened) { return syncObject(opened); });
    }

    /// Renames only the object that was examined. Another one is renamed back: ESTALE.
    [[nodiscard]] Result<> renameToBackup() const {
        const Result<> renamed = renameExclusively(_entry.address(), backup());
        if (!renamed || isAt(backup(), _old)) return renamed;
        (void)renameExclusively(backup(), _entry.address());
        return failure(ESTALE);
    }

    /// The new content and both names are synced by now. Ignores failures.
    void dropBackup() const {
        if (!isAt(backup(), _old)) return;
        if (::unlinkat(_entry.parent().get(), _backupName.c_str(), 0) == 0)
            (void)syncDirectory(_entry.parent());
    }

    FileFlags& _fileFlags;
    Entry _entry;
    Object _old;
    std::string _path;
    std::string _backupPath;
    std::string _backupName;
};

}  // namespace

ErrorRef FileOperations::performOperationModifySystemfileWithArguments(const Array& arguments) {
    return overwriteSystemFileAtPath(stringArgument(arguments, 0), dataArgument(arguments, 1),
                                     numberArgument(arguments, 2).boolValue());
}

ErrorRef FileOperations::overwriteSystemFileAtPath(const std::string& path, const Data* withContent,
                                                   bool removeBackup) {
    const std::optional<ClientPath> checked = ClientPath::from(path);
    if (!checked || withContent == nullptr) return makePosixError(EINVAL);
    Result<LocatedObject> old = openEntryBehindLinks(*checked);
    if (!old) {
        const bool isMissing = meansMissing(old) && !failedWith(old, ELOOP);
        return isMissing ? makePosixError(ENOENT) : makePosixError(old.error());
    }
    if (old->object.isDirectory()) return makePosixError(EISDIR);
    std::string shown = old->entry.shownPath(path);
    Replacement replacement(_fileFlags, *std::move(old), std::move(shown));
    return replacement.run(withContent->view(), removeBackup);
}

}  // namespace corvalen
