// SPDX-License-Identifier: MIT
// What the daemon does for itself when it is removed from a machine.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "helper/log_line.hpp"
#include "helper/privileged_helper.hpp"
#include "platform/entry.hpp"

namespace corvalen {
namespace {

/// Takes the flags off that keep an object from being removed. False when that cannot be done.
bool clearProtection(FileFlags& fileFlags, const Object& object) {
    std::uint32_t flags = 0;
    // Without flags to read there is no protection; else the removal itself fails.
    if (fileFlags.readFlags(object.address(), object.status, &flags) != 0) return true;
    if ((flags & kSystemProtectionFlags) != 0) return false;
    if ((flags & kUserProtectionFlags) == 0) return true;
    return fileFlags.setFlags(object.address(), flags & ~kUserProtectionFlags) == 0;
}

}  // namespace

ErrorRef QRLPrivilegedHelper::deleteFileSystemObjectsWithPaths(const Array& paths) {
    ErrorRef result;
    for (const Value& element : paths) {
        const std::string* path = element.string();
        if (path == nullptr) continue;
        _log.debug(LogLine("Deleting file system object '{}'.", *path));
        enforceRemovalOfFileSystemObjectAtPath(*path, &result);
    }
    return result;
}

bool QRLPrivilegedHelper::enforceRemovalOfFileSystemObjectAtPath(std::string_view path,
                                                                 ErrorRef* error) {
    const std::optional<ClientPath> checked = ClientPath::from(path);
    if (!checked) return failWithErrno(error, EINVAL);
    Entry entry;
    Object object;
    int code = openEntry(*checked, &entry);
    if (code == 0) code = entry.checkRemovable();
    if (code == 0) code = openObject(entry.address(), &object);
    if (code == 0) code = isWhiteout(object.status) ? EIO : checkType(entry, object);
    if (code == 0 && !clearProtection(*_fileFlags, object)) code = EIO;
    if (code != 0) return failWithErrno(error, code);
    const int kind = object.isDirectory() ? AT_REMOVEDIR : 0;
    if (::unlinkat(entry.parent(), entry.name().c_str(), kind) != 0)
        return failWithErrno(error, errno);
    return true;
}

ErrorRef QRLPrivilegedHelper::prepareUninstall() {
    AuthorizationStatus status = kAuthorizationSuccess;
    const auto reference = _authorization->create(&status);
    if (status != kAuthorizationSuccess) return makeOSStatusError(status);
    _operationSet->removeAuthorizationRightsForImplementedOperationsUsingAuthorization(
        *_authorization, reference.get());
    return nullptr;
}

}  // namespace corvalen
