// SPDX-License-Identifier: MIT
// modify-protection: locks or unlocks an object, with everything below it if wanted.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "fileops/file_operations.hpp"
#include "fileops/immutable_flag.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"

namespace corvalen {
namespace {

/// Opens `object` again, or its target if it is a symlink. Returns 0 or an errno.
int openTarget(const Entry& entry, const Object& object, Object* target) {
    const int code = object.isLink()
                         ? openObject({entry.parent(), entry.name().c_str(), true}, target)
                         : openObject(object.address(), target);
    return code != 0 ? code : checkType(entry, *target);
}

}  // namespace

ErrorRef FileOperations::performOperationModifyProtectionWithArguments(const Array& arguments) {
    const std::optional<ClientPath> path = ClientPath::from(stringArgument(arguments, 0));
    const bool lock = numberArgument(arguments, 1).boolValue();
    const bool includeContents = numberArgument(arguments, 2).boolValue();
    const bool stayOnVolume = numberArgument(arguments, 3).boolValue();
    if (!path) return makePosixError(EINVAL);
    Entry entry;
    Object object;
    Object target;
    int code = openEntry(*path, &entry);
    if (code == 0) code = openObject(entry.address(), &object);
    if (code == 0) code = openTarget(entry, object, &target);
    if (code != 0) return makePosixError(meansMissing(code) ? ENOENT : code);
    code = changeImmutableFlag(_fileFlags, target.address(), target.status, lock);
    if (code != 0) return makePosixError(code);
    if (!target.isDirectory() || !includeContents) return nullptr;
    // The volume of the object at the path itself, even of a symlink to another volume.
    const FlagChangeBounds bounds{.volume = stayOnVolume ? &object.status : nullptr,
                                  .cancellation = currentCancellation()};
    code = changeImmutableFlagsBelow(_fileFlags, target.descriptor.get(), lock, bounds);
    if (code == ECANCELED) return cancelledError(currentCancellation());
    return code == 0 ? nullptr : makePosixError(code);
}

bool FileOperations::setImmutableFlag(bool flag, const std::string& ofFileSystemObjectAtPath,
                                      bool checkingExistenceOfLinkTarget, ErrorRef* error) {
    const std::optional<ClientPath> path = ClientPath::from(ofFileSystemObjectAtPath);
    if (!path) return failWithErrno(error, EINVAL);
    Entry entry;
    Object object;
    int code = openEntry(*path, &entry);
    if (code == 0) code = openObject(entry.address(), &object);
    if (code != 0) return failWithErrno(error, code);
    Object target;
    if (openTarget(entry, object, &target) != 0)
        return !checkingExistenceOfLinkTarget || failWithErrno(error, ENOENT);
    code = changeImmutableFlag(_fileFlags, target.address(), target.status, flag);
    return code == 0 || failWithErrno(error, code);
}

std::uint32_t FileOperations::fileSystemIDForPath(const std::string& path) noexcept {
    struct statx attributes {};
    const int result = ::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT,
                               STATX_TYPE, &attributes);
    return result == 0 ? deviceIdentifier(attributes) : kNoFileSystemID;
}

}  // namespace corvalen
