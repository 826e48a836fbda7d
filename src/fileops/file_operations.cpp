// SPDX-License-Identifier: MIT
// Registration, and the operations on single objects.
#include "fileops/file_operations.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "fileops/immutable_flag.hpp"
#include "foundation/path.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "platform/thread_umask.hpp"

namespace corvalen {
namespace {

constexpr mode_t kFilePermissions = 0644;
constexpr mode_t kExecutablePermissions = 0755;

enum class Existence : std::uint8_t { nothing = 0, folder = 1, otherObject = 2 };

}  // namespace

void FileOperations::registerMethods(MethodTable& table) {
    using Self = FileOperations;
    table.add("performOperationModifySystemfileWithArguments:", *this,
              &Self::performOperationModifySystemfileWithArguments);
    table.add("performOperationCreateFileobjectWithArguments:", *this,
              &Self::performOperationCreateFileobjectWithArguments);
    table.add("performOperationRenameFileobjectWithArguments:", *this,
              &Self::performOperationRenameFileobjectWithArguments);
    table.add("performOperationDeleteFileobjectsWithArguments:feedbackConnection:", *this,
              &Self::performOperationDeleteFileobjectsWithArguments);
    table.add("performOperationDeleteFoldercontentsWithArguments:feedbackConnection:", *this,
              &Self::performOperationDeleteFoldercontentsWithArguments);
    table.add("performOperationInspectFileobjectWithArguments:", *this,
              &Self::performOperationInspectFileobjectWithArguments);
    table.add("performOperationTouchFileobjectWithArguments:", *this,
              &Self::performOperationTouchFileobjectWithArguments);
    table.add("performOperationModifyProtectionWithArguments:", *this,
              &Self::performOperationModifyProtectionWithArguments);
    table.add("performOperationModifyHfsattrWithArguments:", *this,
              &Self::performOperationModifyHfsattrWithArguments);
    table.add("performOperationCreateLinkWithArguments:", *this,
              &Self::performOperationCreateLinkWithArguments);
    table.add("performOperationModifyAclWithArguments:", *this,
              &Self::performOperationModifyAclWithArguments);
}

ErrorRef FileOperations::performOperationCreateFileobjectWithArguments(const Array& arguments) {
    const ScopedUmask permissionsAsGiven(0);
    return createFileSystemObjectAtPath(stringArgument(arguments, 0), stringArgument(arguments, 1));
}

ErrorRef FileOperations::createFileSystemObjectAtPath(const std::string& path,
                                                      std::string_view withTypeCode) {
    const bool isFolder = withTypeCode == "D";
    const bool known = withTypeCode == "F" || isFolder || withTypeCode == "X";
    if (isEmptyOrHasNulByte(path) || !known) return makePosixError(EINVAL);
    if (_fileManager.fileExistsAtPath(path)) return makePosixError(EEXIST);
    const CreationAttributes attributes{
        withTypeCode == "F" ? kFilePermissions : kExecutablePermissions, 0, 0};
    if (isFolder) {
        ErrorRef error;
        if (!_fileManager.createDirectoryAtPath(path, attributes, &error)) return error;
    } else if (!_fileManager.createFileAtPath(path, {}, attributes)) {
        return makeOperationError(OperationErrorCode::cannotCreateObject, {{path}, path});
    }
    // Not through a link: whoever put one there since would give root the file it leads to.
    if (::fchownat(AT_FDCWD, path.c_str(), 0, 0, AT_SYMLINK_NOFOLLOW) != 0)
        return makePosixError(errno);
    return nullptr;
}

ErrorRef FileOperations::performOperationRenameFileobjectWithArguments(const Array& arguments) {
    const std::string& from = stringArgument(arguments, 0);
    const std::string& to = stringArgument(arguments, 1);
    if (hasNulByte(from) || hasNulByte(to)) return makePosixError(EINVAL);
    ErrorRef error;
    _fileManager.moveItemAtPath(from, to, &error);
    return error;
}

ErrorRef FileOperations::performOperationInspectFileobjectWithArguments(const Array& arguments) {
    const std::string& path = stringArgument(arguments, 0);
    if (isEmptyOrHasNulByte(path)) return makePosixError(EINVAL);
    bool isDirectory = false;
    Existence existence = Existence::nothing;
    if (_fileManager.fileExistsAtPath(resolveSymlinksInPath(path), &isDirectory))
        existence = isDirectory ? Existence::folder : Existence::otherObject;
    return makeOperationAnswer(kKeyObjectExistenceInfo, static_cast<int>(existence));
}

ErrorRef FileOperations::performOperationTouchFileobjectWithArguments(const Array& arguments) {
    const std::string& path = stringArgument(arguments, 0);
    if (isEmptyOrHasNulByte(path)) return makePosixError(EINVAL);
    const std::string resolved = resolveSymlinksInPath(path);
    if (!_fileManager.fileExistsAtPath(resolved)) return makePosixError(ENOENT);
    // There is no link left in the path: one that is put there now is not followed.
    const int result = ::utimensat(AT_FDCWD, resolved.c_str(), nullptr, AT_SYMLINK_NOFOLLOW);
    return result == 0 ? nullptr : makePosixError(errno);
}

ErrorRef FileOperations::performOperationCreateLinkWithArguments(const Array& arguments) {
    const std::string& newPath = stringArgument(arguments, 0);
    const std::string& destination = stringArgument(arguments, 1);
    if (hasNulByte(newPath) || hasNulByte(destination)) return makePosixError(EINVAL);
    ErrorRef error;
    if (numberArgument(arguments, 2).boolValue()) {
        _fileManager.linkItemAtPath(destination, newPath, &error);
    } else {
        _fileManager.createSymbolicLinkAtPath(newPath, destination, &error);
    }
    return error;
}

std::uint32_t FileOperations::fileSystemIDForPath(const std::string& path) noexcept {
    struct statx attributes {};
    const int result = ::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT,
                               STATX_TYPE, &attributes);
    return result == 0 ? deviceIdentifier(attributes) : kNoFileSystemID;
}

}  // namespace corvalen
