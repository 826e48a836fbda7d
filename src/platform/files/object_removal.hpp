// SPDX-License-Identifier: MIT
// Removal of objects, for every operation that removes something. Each function returns 0 or an
// errno. Any thread may call. Nothing is synced.
#pragma once

#include <cstdint>
#include <string>

#include "foundation/cancellation.hpp"
#include "platform/files/entry.hpp"
#include "platform/files/file_flags.hpp"

namespace corvalen {

/// Resolves a path to remove: the entry, and the object there, a link itself. Fails with EINVAL for
/// "." and "..", EBUSY for "/", ENOTDIR if the path requires a directory. `*exists` is false if the
/// failure means that nothing exists there.
int openForRemoval(const ClientPath& path, Entry* entry, Object* object, bool* exists);

/// Reasons against removing a single object, apart from an errno.
enum class RemovalObstacle : std::uint8_t { none, whiteout, systemFlags, flagsStay };

/// Clears the flags that may be cleared, and removes the object with unlinkat(2); a directory must
/// be empty. With an obstacle it returns EPERM and removes nothing; `flagsStay` means that changing
/// the flags failed.
int removeSingleObject(const Entry& entry, const Object& object, FileFlags& flags,
                       RemovalObstacle* obstacle);

struct RemovalOptions {
    /// Ends the removal with ECANCELED before the next object, and counts removed objects. May be
    /// null. Borrowed.
    Cancellation* cancellation = nullptr;
    /// The object that was examined; another one at the address fails with ESTALE. May be null.
    /// Borrowed.
    const struct statx* expected = nullptr;
    /// Becomes true once an object was removed. May be null. Borrowed.
    bool* begun = nullptr;
};

/// Removes the object with its contents; clears no flags. Ends at the first failure, and with EBUSY
/// at a directory on which something is mounted, which keeps its contents. `*failedPath` is the
/// path below the object where it ended, empty for the object itself.
int removeTree(const ObjectAddress& object, const RemovalOptions& options, std::string* failedPath);

}  // namespace corvalen
