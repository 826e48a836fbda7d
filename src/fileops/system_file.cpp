// SPDX-License-Identifier: MIT
// The replacement of a system file with a backup.
#include <algorithm>
#include <cerrno>

#include "fileops/file_operations.hpp"
#include "foundation/path.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "platform/thread_umask.hpp"

namespace corvalen {
namespace {

/// While it has no attributes of its own yet, nobody but root may open the new file: whoever did
/// could write to it for as long as he keeps it open.
constexpr CreationAttributes kUntilAttributesAreKnown{0600, 0, 0};

/// Signatures hold for one content only.
bool belongsToContent(const FileAttributes::ExtendedAttribute& attribute) noexcept {
    return attribute.name == "security.ima" || attribute.name == "security.evm";
}

void dropWhatBelongsToContent(FileAttributes* attributes) {
    auto& all = attributes->extendedAttributes;
    all.erase(std::remove_if(all.begin(), all.end(), belongsToContent), all.end());
}

}  // namespace

ErrorRef FileOperations::performOperationModifySystemfileWithArguments(const Array& arguments) {
    const ScopedUmask permissionsAsGiven(0);
    return overwriteSystemFileAtPath(stringArgument(arguments, 0), dataArgument(arguments, 1),
                                     numberArgument(arguments, 2).boolValue());
}

ErrorRef FileOperations::overwriteSystemFileAtPath(const std::string& path, const Data* withContent,
                                                   bool removeBackup) {
    if (isEmptyOrHasNulByte(path) || withContent == nullptr) return makePosixError(EINVAL);
    bool isDirectory = false;
    if (!_fileManager.fileExistsAtPath(path, &isDirectory)) return makePosixError(ENOENT);
    if (isDirectory) return makePosixError(EISDIR);
    const std::string target = resolveSymlinksInPath(path);
    const std::string backup = appendPathExtension(target, "backup");
    ErrorRef error;
    if (_fileManager.fileExistsAtPath(backup, &isDirectory)) {
        if (isDirectory) {
            return makeOperationError(OperationErrorCode::backupBlockedByFolder,
                                      {{backup}, backup});
        }
        if (!_fileManager.removeItemAtPath(backup, &error)) return error;
    }
    std::optional<FileAttributes> carried = _fileManager.attributesOfItemAtPath(target, &error);
    if (!carried) return error;
    dropWhatBelongsToContent(&*carried);
    if (!_fileManager.moveItemAtPath(target, backup, &error)) {
        return makeOperationError(OperationErrorCode::objectProtected,
                                  {{target}, target, std::move(error)});
    }
    // A failed write is not reported by itself, and nothing is moved back: the old content is at
    // the backup path.
    (void)_fileManager.createFileAtPath(target, withContent->view(), kUntilAttributesAreKnown);
    if (!_fileManager.setAttributes(*carried, target, &error)) return error;
    if (removeBackup) (void)_fileManager.removeItemAtPath(backup);
    return nullptr;
}

}  // namespace corvalen
