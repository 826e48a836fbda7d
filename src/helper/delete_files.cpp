// SPDX-License-Identifier: MIT
// delete-files: removes single objects, symlinks themselves; an uninstallation removes the daemon's
// files with it. Accepts any path. Arguments: paths (S...). The error is that of the last failure.
#include <cerrno>

#include "helper/helper_log.hpp"
#include "helper/maintenance_operations.hpp"
#include "operations/errors.hpp"
#include "platform/files/object_trees.hpp"

namespace corvalen {

ErrorRef MaintenanceOperations::deleteFileSystemObjectsWithPaths(const Array& paths) {
    ErrorRef result;
    Cancellation& cancellation = currentCancellation();
    for (const Value& element : paths) {
        const std::string* path = element.string();
        if (path == nullptr) continue;
        if (cancellation.requested()) return cancelledError(cancellation);
        _services.log.debug(LogLine("Deleting file system object '{}'.", *path));
        if (enforceRemovalOfFileSystemObjectAtPath(*path, &result)) cancellation.addObject();
    }
    return result;
}

bool MaintenanceOperations::enforceRemovalOfFileSystemObjectAtPath(std::string_view path,
                                                                   ErrorRef* error) {
    const std::optional<ClientPath> checked = ClientPath::from(path);
    if (!checked) return failWithErrno(error, EINVAL);
    const Result<RemovalObstacle> obstacle =
        openForRemoval(*checked).and_then([this](const LocatedObject& located) {
            return removeSingleObject(located, _services.fileFlags);
        });
    if (!obstacle) return failWithErrno(error, obstacle.error());
    return *obstacle == RemovalObstacle::none || failWithErrno(error, EIO);
}

}  // namespace corvalen
