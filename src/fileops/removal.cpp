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
    const Result<LocatedObject> located = openForRemoval(*checked);
    if (!located) return failWithErrno(error, located.error());
    const Result<RemovalObstacle> obstacle = removeSingleObject(*located, _fileFlags);
    if (!obstacle) return failWithErrno(error, obstacle.error());
    if (*obstacle != RemovalObstacle::none) return failWithCode(error, codeOf(*obstacle), path);
    Cancellation& cancellation = currentCancellation();
    cancellation.setObjectCount(cancellation.objectCount() + 1);
    return true;
}

bool FileOperations::enforceRecursiveRemovalOfFileSystemObjectAtPath(const std::string& path,
                                                                     ErrorRef* error) {
    const std::optional<ClientPath> checked = ClientPath::from(path);
    if (!checked) return failWithErrno(error, EINVAL);
    const Result<LocatedObject> located = openForRemoval(*checked);
    if (!located) return meansMissing(located.error()) || failWithErrno(error, located.error());
    const Result<> fits = checkType(located->entry, located->object);
    if (!fits) return failWithErrno(error, fits.error());
    return enforceRecursiveRemoval(located->entry.address(), path, error);
}

bool FileOperations::enforceRecursiveRemoval(const ObjectAddress& address, std::string_view path,
                                             ErrorRef* error) {
    Result<Object> object = openObject(address);
    // A symlink's target is unlocked with its contents, although only the symlink will be removed.
    // A dangling symlink counts as removed, and stays.
    const bool isLink = object && object->isLink();
    if (isLink) object = openObject({address.parent, address.name, true});
    if (!object) return meansMissing(object.error()) || failWithErrno(error, object.error());
    const Result<> unlocked = isLink ? unlockTree(*object, TreeWalkOptions::Mounts::entered)
                                     : unlockForRemoval(address, *object);
    if (!unlocked) return failWithErrno(error, unlocked.error());
    return _fileManager.removeItem(address, path, error);
}

Result<> FileOperations::unlockForRemoval(const ObjectAddress& address, const Object& object) {
    if (object.isDirectory()) {
        const Result<UniqueFd> opened = openOnSameMount(address.parent, address.name);
        if (failedWith(opened, EXDEV)) return failure(EBUSY);
        if (!opened) return failure(opened.error());
    }
    return unlockTree(object, TreeWalkOptions::Mounts::refused);
}

Result<> FileOperations::unlockTree(const Object& top, TreeWalkOptions::Mounts mounts) {
    const Result<> changed = changeImmutableFlag(_fileFlags, top.address(), top.status, false);
    if (!changed || !top.isDirectory()) return changed;
    return changeImmutableFlagsBelow(
        _fileFlags, top.descriptor, false,
        {.mounts = mounts, .cancellation = currentCancellation(), .counts = false});
}

}  // namespace corvalen
