// SPDX-License-Identifier: MIT
// Registration, and operations on single objects.
#include "fileops/file_operations.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "fileops/immutable_flag.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "platform/new_object.hpp"
#include "platform/thread_umask.hpp"

namespace corvalen {
namespace {

constexpr mode_t kFilePermissions = 0644;
constexpr mode_t kExecutablePermissions = 0755;

enum class Existence : std::uint8_t { nothing = 0, folder = 1, otherObject = 2 };

/// Follows a symlink; false for a dangling one.
bool leadsToAnObject(const Entry& entry) {
    Object object;
    return openObject({entry.parent(), entry.name().c_str(), true}, &object) == 0;
}

int makePlainFile(const Entry& entry, bool executable, UniqueFd* made) {
    if (entry.mustBeDirectory()) return EISDIR;
    return makeFile(entry.address(), executable ? kExecutablePermissions : kFilePermissions, made);
}

/// Opens the entry that `path` names; ENOENT for an empty path. Fills `*error` on failure.
bool openNamed(const std::string& path, Entry* entry, ErrorRef* error) {
    const std::optional<ClientPath> checked = ClientPath::from(path);
    const int code = checked ? openEntry(*checked, entry) : ENOENT;
    if (code != 0) *error = makeFileError(FileAccess::write, code, path);
    return code == 0;
}

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
    const std::optional<ClientPath> checked = ClientPath::from(path);
    if (!checked || !known) return makePosixError(EINVAL);
    Entry entry;
    UniqueFd made;
    int code = openEntry(*checked, &entry);
    if (code == 0 && leadsToAnObject(entry)) return makePosixError(EEXIST);
    if (code == 0)
        code = isFolder ? makeDirectory(entry.address(), kExecutablePermissions, &made)
                        : makePlainFile(entry, withTypeCode == "X", &made);
    if (code != 0) {
        return isFolder
                   ? makeFileError(FileAccess::write, code, path)
                   : makeOperationError(OperationErrorCode::cannotCreateObject, {{path}, path});
    }
    if (::fchown(made.get(), 0, 0) != 0) return makePosixError(errno);
    code = syncObject(made.get());
    if (code == 0) code = syncDirectory(entry.parent());
    return code == 0 ? nullptr : makePosixError(code);
}

ErrorRef FileOperations::performOperationRenameFileobjectWithArguments(const Array& arguments) {
    const std::string& from = stringArgument(arguments, 0);
    const std::string& to = stringArgument(arguments, 1);
    if (hasNulByte(from) || hasNulByte(to)) return makePosixError(EINVAL);
    Entry source;
    Entry destination;
    ErrorRef error;
    if (openNamed(from, &source, &error) && openNamed(to, &destination, &error))
        _fileManager.moveItem({source, from}, {destination, to}, &error);
    Cancellation& cancellation = currentCancellation();
    return error && cancellation.requested() ? cancelledError(cancellation) : error;
}

ErrorRef FileOperations::performOperationInspectFileobjectWithArguments(const Array& arguments) {
    const std::optional<ClientPath> path = ClientPath::from(stringArgument(arguments, 0));
    if (!path) return makePosixError(EINVAL);
    Object object;
    Existence existence = Existence::nothing;
    const int code = openObject(*path, &object);
    if (code != 0 && !meansMissing(code)) return makePosixError(code);
    if (code == 0) existence = object.isDirectory() ? Existence::folder : Existence::otherObject;
    return makeOperationAnswer(kKeyObjectExistenceInfo, static_cast<int>(existence));
}

ErrorRef FileOperations::performOperationTouchFileobjectWithArguments(const Array& arguments) {
    const std::optional<ClientPath> path = ClientPath::from(stringArgument(arguments, 0));
    if (!path) return makePosixError(EINVAL);
    Object object;
    const int code = openObject(*path, &object);
    if (code != 0) return makePosixError(meansMissing(code) ? ENOENT : code);
    const int result = ::utimensat(object.descriptor.get(), "", nullptr, AT_EMPTY_PATH);
    return result == 0 ? nullptr : makePosixError(errno);
}

ErrorRef FileOperations::performOperationCreateLinkWithArguments(const Array& arguments) {
    const std::string& newPath = stringArgument(arguments, 0);
    const std::string& destination = stringArgument(arguments, 1);
    if (hasNulByte(newPath) || hasNulByte(destination)) return makePosixError(EINVAL);
    const bool hardLink = numberArgument(arguments, 2).boolValue();
    Entry existing;
    Entry link;
    ErrorRef error;
    if (hardLink && !openNamed(destination, &existing, &error)) return error;
    if (!openNamed(newPath, &link, &error)) return error;
    if (hardLink) {
        _fileManager.linkItem({existing, destination}, {link, newPath}, &error);
    } else {
        _fileManager.createSymbolicLink({link, newPath}, destination, &error);
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
