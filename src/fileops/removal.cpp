// SPDX-License-Identifier: MIT
// Removes objects with protective flags.
#include <cerrno>
#include <optional>

#include "fileops/file_operations.hpp"
#include "fileops/immutable_flag.hpp"
#include "operations/errors.hpp"
#include "platform/files/object_removal.hpp"
#include "platform/files/tree_walk.hpp"

namespace corvalen {
namespace {

OperationErrorCode codeOf(RemovalObstacle obstacle) noexcept {
    switch (obstacle) {
        case RemovalObstacle::whiteout:
            return OperationErrorCode::cannotDeleteWhiteout;
        case RemovalObstacle::systemFlags:
            return OperationErrorCode::singleUserModeRequired;
        default:
            return OperationErrorCode::cannotChangeFlags;
    }
}

bool failWithCode(ErrorRef* out, OperationErrorCode code, const std::string& path) {
    if (out != nullptr) *out = makeOperationError(code, {{path}, path});
    return false;
}

}  // namespace

bool FileOperations::enforceRemovalOfFileSystemObjectAtPath(const std::string& path, bool recursive,
                                                            ErrorRef* error) {
    return recursive ? enforceRecursiveRemovalOfFileSystemObjectAtPath(path, error)
                     : enforceSingleRemovalOfFileSystemObjectAtPath(path, error);
}

bool FileOperations::enforceSingleRemovalOfFileSystemObjectAtPath(const std::string& path,
                                                                  ErrorRef* error) {
    const std::optional<ClientPath> checked = ClientPath::from(path);
    if (!checked) return failWithErrno(error, EINVAL);
    Entry entry;
    Object object;
    bool exists = false;
    auto obstacle = RemovalObstacle::none;
    int code = openForRemoval(*checked, &entry, &object, &exists);
    if (code == 0) code = removeSingleObject(entry, object, _fileFlags, &obstacle);
    if (obstacle != RemovalObstacle::none) return failWithCode(error, codeOf(obstacle), path);
    if (code != 0) return failWithErrno(error, code);
    Cancellation& cancellation = currentCancellation();
    cancellation.setObjectCount(cancellation.objectCount() + 1);
    return true;
}

bool FileOperations::enforceRecursiveRemovalOfFileSystemObjectAtPath(const std::string& path,
                                                                     ErrorRef* error) {
    const std::optional<ClientPath> checked = ClientPath::from(path);
    if (!checked) return failWithErrno(error, EINVAL);
    Entry entry;
    Object object;
    bool exists = false;
    const int code = openForRemoval(*checked, &entry, &object, &exists);
    if (!exists) return true;
    if (code != 0) return failWithErrno(error, code);
    return enforceRecursiveRemoval(entry.address(), path, error);
}

bool FileOperations::enforceRecursiveRemoval(const ObjectAddress& address, std::string_view path,
                                             ErrorRef* error) {
    Object object;
    int code = openObject(address, &object);
    if (code != 0) return meansMissing(code) || failWithErrno(error, code);
    bool isGone = false;
    code = unlockForRemoval(address, object, &isGone);
    if (code != 0) return failWithErrno(error, code);
    return isGone || _fileManager.removeItem(address, path, error);
}

int FileOperations::unlockForRemoval(const ObjectAddress& address, const Object& object,
                                     bool* isGone) {
    using Mounts = TreeWalkOptions::Mounts;
    Object target;
    // A dangling symlink counts as removed, and stays.
    const int targetError =
        object.isLink() ? openObject({address.parent, address.name, true}, &target) : 0;
    *isGone = meansMissing(targetError);
    if (targetError != 0) return *isGone ? 0 : targetError;
    // Unlocks a symlink's target with its contents, although only the symlink will be removed.
    const Object& unlocked = object.isLink() ? target : object;
    if (object.isDirectory() && !openOnSameMount(address.parent, address.name))
        return errno == EXDEV ? EBUSY : errno;
    const int code = changeImmutableFlag(_fileFlags, unlocked.address(), unlocked.status, false);
    if (code != 0 || !unlocked.isDirectory()) return code;
    return changeImmutableFlagsBelow(_fileFlags, unlocked.descriptor.get(), false,
                                     {.mounts = object.isLink() ? Mounts::entered : Mounts::refused,
                                      .cancellation = currentCancellation(),
                                      .counts = false});
}

}  // namespace corvalen
