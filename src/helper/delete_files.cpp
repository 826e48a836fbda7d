// SPDX-License-Identifier: MIT
// delete-files: removes files of the daemon when it is uninstalled.
#include <cerrno>

#include "helper/log_line.hpp"
#include "helper/maintenance_operations.hpp"
#include "platform/files/object_removal.hpp"

namespace corvalen {

ErrorRef MaintenanceOperations::deleteFileSystemObjectsWithPaths(const Array& paths) {
    ErrorRef result;
    for (const Value& element : paths) {
        const std::string* path = element.string();
        if (path == nullptr) continue;
        _services.log.debug(LogLine("Deleting file system object '{}'.", *path));
        enforceRemovalOfFileSystemObjectAtPath(*path, &result);
    }
    return result;
}

bool MaintenanceOperations::enforceRemovalOfFileSystemObjectAtPath(std::string_view path,
                                                                   ErrorRef* error) {
    const std::optional<ClientPath> checked = ClientPath::from(path);
    if (!checked) return failWithErrno(error, EINVAL);
    Entry entry;
    Object object;
    bool exists = false;
    auto obstacle = RemovalObstacle::none;
    int code = openForRemoval(*checked, &entry, &object, &exists);
    if (code == 0) code = removeSingleObject(entry, object, _services.fileFlags, &obstacle);
    if (obstacle != RemovalObstacle::none) code = EIO;
    return code == 0 || failWithErrno(error, code);
}

}  // namespace corvalen
