// SPDX-License-Identifier: MIT
// Locks, classic attributes and access control lists.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "fileops/file_operations.hpp"
#include "fileops/immutable_flag.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "platform/finder_info.hpp"

namespace corvalen {
namespace {

/// Four characters in 32 bits.
std::uint32_t finderCode(const Array& arguments, std::size_t index) noexcept {
    return static_cast<std::uint32_t>(numberArgument(arguments, index).unsignedIntegerValue());
}

/// Opens `object` again, or its target if it is a symlink. Returns 0 or an errno.
int openTarget(const Entry& entry, const Object& object, Object* target) {
    const int code = object.isLink()
                         ? openObject({entry.parent(), entry.name().c_str(), true}, target)
                         : openObject(object.address(), target);
    return code != 0 ? code : checkType(entry, *target);
}

}  // namespace

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

ErrorRef FileOperations::performOperationModifyHfsattrWithArguments(const Array& arguments) {
    const std::string& text = stringArgument(arguments, 0);
    const std::optional<ClientPath> path = ClientPath::from(text);
    if (!path) return makePosixError(EINVAL);
    Object object;
    int code = openObject(*path, &object);
    if (code == 0)
        code = setFinderCodes(object.address(), finderCode(arguments, 1), finderCode(arguments, 2));
    // If the hidden attribute cannot be set, the codes stay.
    if (code == 0)
        code = setFinderInvisible(object.address(), numberArgument(arguments, 3).boolValue());
    return code == 0 ? nullptr : makeFileError(FileAccess::write, code, text);
}

ErrorRef FileOperations::performOperationModifyAclWithArguments(const Array& arguments) {
    const std::optional<ClientPath> path = ClientPath::from(stringArgument(arguments, 0));
    const Data* data = dataArgument(arguments, 1);
    const std::optional<ExternalAclPair> lists =
        path && data != nullptr ? splitExternalAcl(data->view()) : std::nullopt;
    if (!lists) return makePosixError(EINVAL);
    Object object;
    int code = openObject(*path, &object);
    // Only a directory can have a default list.
    if (code == 0 && !lists->inheritable.empty() && !object.isDirectory()) code = EINVAL;
    if (code == 0) code = _extendedAcl.writeList(object.address(), AclKind::access, lists->access);
    if (code == 0 && object.isDirectory()) {
        code = lists->inheritable.empty()
                   ? _extendedAcl.removeList(object.address(), AclKind::inheritable)
                   : _extendedAcl.writeList(object.address(), AclKind::inheritable,
                                            lists->inheritable);
    }
    if (code != 0) return makePosixError(code);
    (void)_extendedAcl.setInheritedMark(object.address(), false);
    return nullptr;
}

}  // namespace corvalen
