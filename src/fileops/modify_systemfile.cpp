// SPDX-License-Identifier: MIT
// modify-systemfile: replaces a file and keeps a backup. Every step uses the same open directory.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "fileops/file_operations.hpp"
#include "foundation/path.hpp"
#include "foundation/write_all.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "platform/files/file_attributes.hpp"
#include "platform/files/file_manager.hpp"
#include "platform/files/new_object.hpp"
#include "platform/processes/thread_umask.hpp"

namespace corvalen {
namespace {

constexpr std::string_view kBackupExtension = "backup";
/// Only root may open the new file before its attributes are set: a descriptor opened until then
/// would stay writable.
constexpr mode_t kUntilAttributesAreKnown = 0600;

/// IMA and EVM signatures do not fit the new file.
bool belongsToContent(const FileAttributes::ExtendedAttribute& attribute) noexcept {
    return attribute.name == "security.ima" || attribute.name == "security.evm";
}

void dropWhatBelongsToContent(FileAttributes* attributes) {
    auto& all = attributes->extendedAttributes;
    all.erase(std::remove_if(all.begin(), all.end(), belongsToContent), all.end());
}

ErrorRef writeError(int code, const std::string& path) {
    return makeFileError(FileAccess::write, code, path);
}

bool isAt(const ObjectAddress& address, const Object& object) {
    Object found;
    return openObject(address, &found) == 0 && isSameObject(found.status, object.status);
}

/// One replacement. A step that returns an error ends it.
class Replacement {
  public:
    Replacement(FileFlags& fileFlags, Entry entry, Object old, std::string path)
        : _fileFlags(fileFlags),
          _entry(std::move(entry)),
          _old(std::move(old)),
          _path(std::move(path)),
          _backupPath(appendPathExtension(_path, kBackupExtension)),
          _backupName(appendPathExtension(_entry.name().text(), kBackupExtension)) {}

    ErrorRef run(std::string_view content, bool removeBackup) {
        if (ErrorRef error = removeOldBackup()) return error;
        if (const int code = readAllAttributes(_old.descriptor.get(), _fileFlags, &_carried))
            return makeFileError(FileAccess::read, code, _path);
        dropWhatBelongsToContent(&_carried);
        if (ErrorRef error = moveAside()) return error;
        UniqueFd file;
        const int created = makeFile(_entry.address(), kUntilAttributesAreKnown, &file);
        // Kept: a failed write alone is not reported, and nothing is moved back.
        const bool written = created == 0 && writeAll(file.get(), content) == 0;
        int code = created != 0 ? created : applyAttributes(file.get());
        if (code == 0) code = syncObject(file.get());
        if (code == 0) code = syncDirectory(_entry.parent());
        if (code != 0) return writeError(code, _path);
        if (removeBackup && written) dropBackup();
        return nullptr;
    }

  private:
    [[nodiscard]] ObjectAddress backup() const noexcept {
        return {_entry.parent(), _backupName.c_str()};
    }

    /// A dangling symlink stays, and makes the rename fail.
    ErrorRef removeOldBackup() {
        Object existing;
        if (openObject({_entry.parent(), _backupName.c_str(), true}, &existing) != 0)
            return nullptr;
        if (existing.isDirectory()) {
            return makeOperationError(OperationErrorCode::backupBlockedByFolder,
                                      {{_backupPath}, _backupPath});
        }
        // Fails for a directory that took its place since.
        const bool removed = ::unlinkat(_entry.parent(), _backupName.c_str(), 0) == 0;
        return removed ? nullptr : writeError(errno, _backupPath);
    }

    /// Syncs the old content first: after the rename the backup is its only name.
    ErrorRef moveAside() {
        int code = syncOld();
        if (code == 0) code = renameToBackup();
        if (code == 0) return nullptr;
        const bool aboutBackup = code == EEXIST || code == ENOSPC;
        ErrorRef error = writeError(code, aboutBackup ? _backupPath : _path);
        return makeOperationError(OperationErrorCode::objectProtected,
                                  {{_path}, _path, std::move(error)});
    }

    int syncOld() const {
        if (!S_ISREG(_old.status.stx_mode)) return 0;
        const DescriptorPath same(_old.descriptor.get());
        const UniqueFd opened(::open(same.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        return opened ? syncObject(opened.get()) : errno;
    }

    /// Renames only the object that was examined. Another one is renamed back: ESTALE.
    int renameToBackup() const {
        const int code = renameExclusively(_entry.address(), backup());
        if (code != 0 || isAt(backup(), _old)) return code;
        (void)renameExclusively(backup(), _entry.address());
        return ESTALE;
    }

    [[nodiscard]] int applyAttributes(int file) const {
        return applyAllAttributes(file, _fileFlags, _carried, {.flags = true});
    }

    /// The new content and both names are synced by now. Ignores failures.
    void dropBackup() const {
        if (!isAt(backup(), _old)) return;
        if (::unlinkat(_entry.parent(), _backupName.c_str(), 0) == 0)
            (void)syncDirectory(_entry.parent());
    }

    FileFlags& _fileFlags;
    Entry _entry;
    Object _old;
    FileAttributes _carried;
    std::string _path;
    std::string _backupPath;
    std::string _backupName;
};

}  // namespace

ErrorRef FileOperations::performOperationModifySystemfileWithArguments(const Array& arguments) {
    const ScopedUmask permissionsAsGiven(0);
    return overwriteSystemFileAtPath(stringArgument(arguments, 0), dataArgument(arguments, 1),
                                     numberArgument(arguments, 2).boolValue());
}

ErrorRef FileOperations::overwriteSystemFileAtPath(const std::string& path, const Data* withContent,
                                                   bool removeBackup) {
    const std::optional<ClientPath> checked = ClientPath::from(path);
    if (!checked || withContent == nullptr) return makePosixError(EINVAL);
    Entry entry;
    Object old;
    const int code = openEntryBehindLinks(*checked, &entry, &old);
    if (code != 0) return makePosixError(code != ELOOP && meansMissing(code) ? ENOENT : code);
    if (old.isDirectory()) return makePosixError(EISDIR);
    std::string shown = entry.shownPath(path);
    Replacement replacement(_fileFlags, std::move(entry), std::move(old), std::move(shown));
    return replacement.run(withContent->view(), removeBackup);
}

}  // namespace corvalen
