// SPDX-License-Identifier: MIT
// The maintenance operations of the daemon.
#pragma once

#include <string_view>

#include "corvalen/error.hpp"
#include "helper/helper_log.hpp"
#include "operations/operation_rows.hpp"
#include "operations/privileged_operation_set.hpp"
#include "platform/authorization/authorization.hpp"
#include "platform/files/file_attributes.hpp"

namespace corvalen {

/// Performs the maintenance operations. They are not part of the operation set: the pipeline finds
/// their methods by code. Any thread may call.
class MaintenanceOperations {
  public:
    using Method = ErrorRef (MaintenanceOperations::*)(const Array& arguments);

    /// Used by the operations; borrowed.
    struct Services {
        HelperLog& log;
        AuthorizationService& authorization;
        FileFlags& fileFlags;
        const QRLPrivilegedOperationSet& operationSet;
    };
    explicit MaintenanceOperations(Services services) noexcept : _services(services) {}

    /// Returns the method in the row of `code`; null for a code of the operation set, or without a
    /// row.
    [[nodiscard]] static Method methodForCode(OperationCode code) noexcept {
        Method found = nullptr;
        visitRowsOf<MaintenanceOperations>(
            [&](OperationCode rowCode, std::string_view /*name*/, Method method) {
                if (rowCode == code) found = method;
            });
        return found;
    }

    /// The method in the rows of nop and discard-auth, whose work is their authorization. The
    /// pipeline replies without calling it, so that they succeed even while the daemon ends.
    /// checkAuthorization() forgets the grants for discard-auth.
    ErrorRef performNothing(const Array& /*arguments*/) { return nullptr; }
    /// Deletes the objects one by one and continues after failures. Returns the error of the last
    /// path that failed, or null. Skips elements that are not strings.
    ErrorRef deleteFileSystemObjectsWithPaths(const Array& paths);
    /// Removes one object after clearing its protection; follows no symlink and does not descend.
    /// Fails with POSIX 22 for an invalid path, 5 for a whiteout or protection that cannot be
    /// cleared, else the POSIX error of the failed call.
    bool enforceRemovalOfFileSystemObjectAtPath(std::string_view path, ErrorRef* error = nullptr);
    /// Removes the definitions of all rights. Takes no arguments.
    ErrorRef prepareUninstall(const Array& arguments);

  private:
    Services _services;
};

}  // namespace corvalen
