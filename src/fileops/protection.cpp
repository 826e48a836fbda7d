// SPDX-License-Identifier: MIT
// Locks, classic attributes and access control lists.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "fileops/file_operations.hpp"
#include "fileops/immutable_flag.hpp"
#include "operations/operation_arguments.hpp"
#include "platform/finder_info.hpp"

namespace corvalen {
namespace {

/// Four characters in 32 bits.
std::uint32_t finderCode(const Array& arguments, std::size_t index) noexcept {
    return static_cast<std::uint32_t>(numberArgument(arguments, index).unsignedIntegerValue());
}

}  // namespace

bool FileOperations::setImmutableFlag(bool flag, const std::string& ofFileSystemObjectAtPath,
                                      bool checkingExistenceOfLinkTarget, ErrorRef* error) {
    const std::string& path = ofFileSystemObjectAtPath;
    if (isEmptyOrHasNulByte(path)) return failWithErrno(error, EINVAL);
    struct statx attributes {};
    const ObjectAddress object{AT_FDCWD, path.c_str()};
    if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_TYPE,
                &attributes) != 0) {
        return failWithErrno(error, errno);
    }
    const int code = S_ISLNK(attributes.stx_mode)
                         ? changeImmutableFlagOfLinkTarget(_fileFlags, object, flag,
                                                           checkingExistenceOfLinkTarget)
                         : changeImmutableFlag(_fileFlags, object, attributes, flag);
    return code == 0 || failWithErrno(error, code);
}

ErrorRef FileOperations::performOperationModifyProtectionWithArguments(const Array& arguments) {
    const std::string& path = stringArgument(arguments, 0);
    const bool lock = numberArgument(arguments, 1).boolValue();
    const bool includeContents = numberArgument(arguments, 2).boolValue();
    const bool stayOnVolume = numberArgument(arguments, 3).boolValue();
    if (isEmptyOrHasNulByte(path)) return makePosixError(EINVAL);
    bool isDirectory = false;
    if (!_fileManager.fileExistsAtPath(path, &isDirectory)) return makePosixError(ENOENT);
    ErrorRef error;
    if (!setImmutableFlag(lock, path, true, &error)) return error;
    if (!isDirectory || !includeContents) return nullptr;
    // The device of the path itself, even when it is a link to a folder elsewhere.
    const TreeBounds bounds{stayOnVolume, fileSystemIDForPath(path)};
    const int code =
        changeImmutableFlagsBelow(_fileFlags, {AT_FDCWD, path.c_str(), true}, lock, bounds);
    return code == 0 ? nullptr : makePosixError(code);
}

ErrorRef FileOperations::performOperationModifyHfsattrWithArguments(const Array& arguments) {
    const std::string& path = stringArgument(arguments, 0);
    if (isEmptyOrHasNulByte(path)) return makePosixError(EINVAL);
    const ObjectAddress object{AT_FDCWD, path.c_str(), true};
    int code = setFinderCodes(object, finderCode(arguments, 1), finderCode(arguments, 2));
    // The codes stay when the hidden attribute cannot be set.
    if (code == 0) code = setFinderInvisible(object, numberArgument(arguments, 3).boolValue());
    return code == 0 ? nullptr : makeFileError(FileAccess::write, code, path);
}

ErrorRef FileOperations::performOperationModifyAclWithArguments(const Array& arguments) {
    const std::string& path = stringArgument(arguments, 0);
    const Data* list = dataArgument(arguments, 1);
    if (isEmptyOrHasNulByte(path) || list == nullptr || !isValidExternalAcl(list->view()))
        return makePosixError(EINVAL);
    const ObjectAddress object{AT_FDCWD, path.c_str(), true};
    const int code = _extendedAcl.writeList(object, AclKind::access, list->bytes);
    if (code != 0) return makePosixError(code);
    (void)_extendedAcl.setInheritedMark(object, false);
    return nullptr;
}

}  // namespace corvalen
