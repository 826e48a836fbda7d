// SPDX-License-Identifier: MIT
// Removal of objects that are protected by flags, and of the contents of folders.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "fileops/file_operations.hpp"
#include "fileops/immutable_flag.hpp"
#include "foundation/path.hpp"
#include "operations/argument_conversion.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "platform/file_manager_tree.hpp"

namespace corvalen {
namespace {

constexpr int kObjectItself = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;
constexpr std::size_t kPathsFrom = 2;  // behind the two flags

double fractionOf(std::size_t done, std::size_t all) noexcept {
    return static_cast<double>(done) / static_cast<double>(all);
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
    // A text that is neither "0" nor "1" leaves its flag false.
    (void)getBool(&recursive, arguments[0].string());
    (void)getBool(&stopOnFirstError, arguments[1].string());
    const Array paths(arguments.begin() + kPathsFrom, arguments.end());
    return deleteFileSystemObjectsAtPaths(paths, recursive, stopOnFirstError, feedbackConnection);
}

ErrorRef FileOperations::deleteFileSystemObjectsAtPaths(const Array& paths, bool recursive,
                                                        bool stopOnFirstError,
                                                        FeedbackConnection* feedbackConnection) {
    for (std::size_t i = 0; i < paths.size(); ++i) {
        ErrorRef error;
        const bool removed =
            enforceRemovalOfFileSystemObjectAtPath(stringArgument(paths, i), recursive, &error);
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
    if (isEmptyOrHasNulByte(path)) return failWithErrno(error, EINVAL);
    const ObjectAddress object{AT_FDCWD, path.c_str()};
    struct statx attributes {};
    if (::statx(AT_FDCWD, path.c_str(), kObjectItself, STATX_TYPE, &attributes) != 0)
        return failWithErrno(error, errno);
    if (isWhiteout(attributes))
        return failWithCode(error, OperationErrorCode::cannotDeleteWhiteout, path);
    std::uint32_t flags = 0;
    (void)_fileFlags.readFlags(object, attributes, &flags);
    const bool systemProtected = (flags & kSystemProtectionFlags) != 0;
    if ((flags & kUserProtectionFlags) != 0 && !systemProtected &&
        _fileFlags.setFlags(object, flags & ~kUserProtectionFlags) != 0) {
        return failWithCode(error, OperationErrorCode::cannotChangeFlags, path);
    }
    if (systemProtected)
        return failWithCode(error, OperationErrorCode::singleUserModeRequired, path);
    const int kind = S_ISDIR(attributes.stx_mode) ? AT_REMOVEDIR : 0;
    return ::unlinkat(AT_FDCWD, path.c_str(), kind) == 0 || failWithErrno(error, errno);
}

bool FileOperations::enforceRecursiveRemovalOfFileSystemObjectAtPath(const std::string& path,
                                                                     ErrorRef* error) {
    if (isEmptyOrHasNulByte(path)) return failWithErrno(error, EINVAL);
    return enforceRecursiveRemoval({AT_FDCWD, path.c_str()}, path, error);
}

bool FileOperations::enforceRecursiveRemoval(const ObjectAddress& object, std::string_view path,
                                             ErrorRef* error) {
    struct statx attributes {};
    if (::statx(object.parent, object.name, kObjectItself, STATX_TYPE, &attributes) != 0)
        return true;
    bool isFolder = S_ISDIR(attributes.stx_mode);
    int code = 0;
    if (S_ISLNK(attributes.stx_mode)) {
        struct statx target {};
        // A dangling link counts as already gone, and stays.
        if (::statx(object.parent, object.name, 0, STATX_TYPE, &target) != 0) return true;
        isFolder = S_ISDIR(target.stx_mode);
        code = changeImmutableFlagOfLinkTarget(_fileFlags, object, false, true);
    } else {
        code = changeImmutableFlag(_fileFlags, object, attributes, false);
    }
    if (code == 0 && isFolder) {
        // The contents of a link's folder are unlocked although only the link will be removed.
        code = changeImmutableFlagsBelow(
            _fileFlags, {object.parent, object.name, S_ISLNK(attributes.stx_mode)}, false);
    }
    if (code != 0) return failWithErrno(error, code);
    return _fileManager.removeItem(object, path, error);
}

/// Removes each direct entry of a folder and enters none itself.
class FileOperations::FolderEmptying : public TreeVisitor {
  public:
    FolderEmptying(FileOperations& operations, const std::string& path)
        : _operations(operations), _path(path) {}

    int visit(const TreeEntry& entry, bool* descend) override {
        *descend = false;
        const bool removed = _operations.enforceRecursiveRemoval(
            {entry.parent, entry.name}, appendPathComponent(_path, entry.name), &_error);
        return removed ? 0 : ECANCELED;
    }
    int cannotList(int error) override {
        _error = makeFileError(FileAccess::read, error, _path);
        return error;
    }
    [[nodiscard]] const ErrorRef& error() const noexcept { return _error; }

  private:
    FileOperations& _operations;
    const std::string& _path;
    ErrorRef _error;
};

ErrorRef FileOperations::deleteContentsOfFolder(const std::string& path) {
    UniqueFd folder = openFolder(AT_FDCWD, path.c_str(), true);
    if (!folder) return makeFileError(FileAccess::read, errno, path);
    FolderEmptying emptying(*this, path);
    (void)TreeWalk().walk(std::move(folder), emptying);
    return emptying.error();
}

ErrorRef FileOperations::performOperationDeleteFoldercontentsWithArguments(
    const Array& arguments, FeedbackConnection* feedbackConnection) {
    if (arguments.empty()) return makePosixError(EINVAL);
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        sendProgress(feedbackConnection, fractionOf(i, arguments.size()));
        const std::string& path = stringArgument(arguments, i);
        if (hasNulByte(path)) return makePosixError(EINVAL);
        bool isDirectory = false;
        if (!_fileManager.fileExistsAtPath(path, &isDirectory)) continue;
        if (!isDirectory) return makePosixError(ENOTDIR);
        if (ErrorRef error = deleteContentsOfFolder(path)) return error;
    }
    sendProgress(feedbackConnection, 1.0);
    return nullptr;
}

}  // namespace corvalen
