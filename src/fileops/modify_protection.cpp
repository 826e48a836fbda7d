// SPDX-License-Identifier: MIT
// modify-protection: locks or unlocks an object, symlinks followed, and everything below it if
// wanted, targets of symlinks too: sets or clears the user immutable flag. Arguments: path (S);
// lock, include contents, stay on the volume (N, Booleans). The first failure ends it; what was
// changed stays changed.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "fileops/file_operations.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"

namespace corvalen {
namespace {

/// Opens the object itself, even a symlink.
Result<LocatedObject> openItself(const ClientPath& path) {
    Result<Entry> entry = openEntry(path);
    if (!entry) return failure(entry.error());
    Result<Object> object = openObject(entry->address());
    if (!object) return failure(object.error());
    return LocatedObject{*std::move(entry), *std::move(object)};
}

/// Opens the object again, or its target if it is a symlink.
Result<Object> openTarget(const LocatedObject& located) {
    const auto& [entry, object] = located;
    Result<Object> target =
        object.isLink() ? openObject({entry.parent(), entry.name().c_str(), /*followLink=*/true})
                        : openObject(object.address());
    if (!target) return target;
    if (const Result<> fits = checkType(entry, *target); !fits) return failure(fits.error());
    return target;
}

}  // namespace

ErrorRef FileOperations::performOperationModifyProtectionWithArguments(const Array& arguments) {
    const std::optional<ClientPath> path = ClientPath::from(stringArgument(arguments, 0));
    const bool lock = numberArgument(arguments, 1).boolValue();
    const bool includeContents = numberArgument(arguments, 2).boolValue();
    const bool stayOnVolume = numberArgument(arguments, 3).boolValue();
    if (!path) return makePosixError(EINVAL);
    const Result<LocatedObject> located = openItself(*path);
    const Result<Object> target = located.and_then(openTarget);
    if (meansMissing(target)) return makePosixError(ENOENT);
    if (!target) return makePosixError(target.error());
    const Result<> changed =
        changeImmutableFlag(_fileFlags, target->address(), target->status, lock);
    if (!changed || !target->isDirectory() || !includeContents) return errorOf(changed);
    // Kept: the volume is that of the path itself. If the path is a symlink to another volume, only
    // the target is changed.
    const FlagChangeBounds bounds{.volume = stayOnVolume ? &located->object.status : nullptr,
                                  .cancellation = currentCancellation()};
    const Result<> below = changeImmutableFlagsBelow(_fileFlags, target->descriptor, lock, bounds);
    return failedWith(below, ECANCELED) ? cancelledError(currentCancellation()) : errorOf(below);
}

bool FileOperations::setImmutableFlag(bool flag, const std::string& ofFileSystemObjectAtPath,
                                      bool checkingExistenceOfLinkTarget, ErrorRef* error) {
    const std::optional<ClientPath> path = ClientPath::from(ofFileSystemObjectAtPath);
    if (!path) return failWithErrno(error, EINVAL);
    const Result<LocatedObject> located = openItself(*path);
    if (!located) return failWithErrno(error, located.error());
    const Result<Object> target = openTarget(*located);
    if (!target) return !checkingExistenceOfLinkTarget || failWithErrno(error, ENOENT);
    const Result<> changed =
        changeImmutableFlag(_fileFlags, target->address(), target->status, flag);
    return changed || failWithErrno(error, changed.error());
}

std::uint32_t FileOperations::fileSystemIDForPath(const std::string& path) noexcept {
    struct statx attributes {};
    const int result = ::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT,
                               STATX_TYPE, &attributes);
    return result == 0 ? deviceIdentifier(attributes) : kNoFileSystemID;
}

}  // namespace corvalen
