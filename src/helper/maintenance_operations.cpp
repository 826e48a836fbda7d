// SPDX-License-Identifier: MIT
// Operations that remove the daemon from a machine.
#include <cerrno>

#include "helper/log_line.hpp"
#include "helper/privileged_helper.hpp"
#include "platform/object_removal.hpp"

namespace corvalen {

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
    bool exists = false;
    auto obstacle = RemovalObstacle::none;
    int code = openForRemoval(*checked, &entry, &object, &exists);
    if (code == 0) code = removeSingleObject(entry, object, *_fileFlags, &obstacle);
    if (obstacle != RemovalObstacle::none) code = EIO;
    return code == 0 || failWithErrno(error, code);
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
