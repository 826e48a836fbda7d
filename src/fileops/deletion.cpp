// SPDX-License-Identifier: MIT
// Removes objects with protective flags, and the contents of directories.
#include <cerrno>
#include <utility>

#include "fileops/file_operations.hpp"
#include "fileops/immutable_flag.hpp"
#include "foundation/path.hpp"
#include "operations/argument_conversion.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "platform/object_removal.hpp"
#include "platform/tree_walk.hpp"

namespace corvalen {
namespace {

constexpr std::size_t kPathsFrom = 2;  // after the two flags

double fractionOf(std::size_t done, std::size_t all) noexcept {
    return static_cast<double>(done) / static_cast<double>(all);
}

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

ErrorRef FileOperations::performOperationDeleteFileobjectsWithArguments(
    const Array& arguments, FeedbackConnection* feedbackConnection) {
    if (arguments.size() <= kPathsFrom) return makePosixError(EINVAL);
    bool recursive = false;
    bool stopOnFirstError = false;
    // Any text but "0" and "1" leaves its flag false.
    (void)getBool(&recursive, arguments[0].string());
    (void)getBool(&stopOnFirstError, arguments[1].string());
    const Array paths(arguments.begin() + kPathsFrom, arguments.end());
    return deleteFileSystemObjectsAtPaths(paths, recursive, stopOnFirstError, feedbackConnection);
}

ErrorRef FileOperations::deleteFileSystemObjectsAtPaths(const Array& paths, bool recursive,
                                                        bool stopOnFirstError,
                                                        FeedbackConnection* feedbackConnection) {
    Cancellation& cancellation = currentCancellation();
    for (std::size_t i = 0; i < paths.size(); ++i) {
        ErrorRef error;
        const bool removed =
            !cancellation.requested() &&
            enforceRemovalOfFileSystemObjectAtPath(stringArgument(paths, i), recursive, &error);
        if (!removed && cancellation.requested()) return cancelledError(cancellation);
        if (!removed && stopOnFirstError) return error;
        sendProgress(feedbackConnection, fractionOf(i + 1, paths.size()));
    }
    sendProgress(feedbackConnection, 1.0);
    return nullptr;
}

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

ErrorRef FileOperations::deleteContentsOfFolder(const Object& folder, const std::string& path) {
    UniqueFd listed = openForListing(folder.descriptor.get());
    if (!listed) return makeFileError(FileAccess::read, errno, path);
    Cancellation& cancellation = currentCancellation();
    TreeWalk walk(std::move(listed), {.cancellation = &cancellation});
    ErrorRef error;
    while (!error && walk.next() == TreeWalk::Step::object) {
        (void)enforceRecursiveRemoval(walk.address(), appendPathComponent(path, walk.entry().name),
                                      &error);
    }
    const bool isFaulty = error || walk.error() != 0;
    if (isFaulty && cancellation.requested()) return cancelledError(cancellation);
    return walk.error() != 0 ? makeFileError(FileAccess::read, walk.error(), path) : error;
}

ErrorRef FileOperations::performOperationDeleteFoldercontentsWithArguments(
    const Array& arguments, FeedbackConnection* feedbackConnection) {
    if (arguments.empty()) return makePosixError(EINVAL);
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        sendProgress(feedbackConnection, fractionOf(i, arguments.size()));
        const std::string& path = stringArgument(arguments, i);
        if (hasNulByte(path)) return makePosixError(EINVAL);
        const std::optional<ClientPath> checked = ClientPath::from(path);
        Object folder;
        const int code = checked ? openObject(*checked, &folder) : ENOENT;
        if (meansMissing(code)) continue;
        if (code != 0) return makePosixError(code);
        if (!folder.isDirectory()) return makePosixError(ENOTDIR);
        if (ErrorRef error = deleteContentsOfFolder(folder, path)) return error;
    }
    sendProgress(feedbackConnection, 1.0);
    return nullptr;
}

}  // namespace corvalen
