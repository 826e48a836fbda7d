// SPDX-License-Identifier: MIT
// The removal of objects: every operation that removes something uses these. Each function returns
// 0 or an errno. Any thread may call. Nothing is synced.
#pragma once

#include <cstdint>
#include <string>

#include "foundation/cancellation.hpp"
#include "platform/entry.hpp"
#include "platform/file_flags.hpp"

namespace corvalen {

/// Resolves what a client wants to have removed: the entry, and the object there, a link itself.
/// Fails with EINVAL for "." and "..", EBUSY for "/", ENOTDIR when the path demands a directory.
/// `*exists` is false after a failure that means that there is nothing to remove.
int openForRemoval(const ClientPath& path, Entry* entry, Object* object, bool* exists);

/// Why a single object cannot be removed, apart from an errno.
enum class RemovalObstacle : std::uint8_t { none, whiteout, systemFlags, flagsStay };

/// Clears the flags that may be cleared, and removes the object with unlinkat(2): a directory must
/// be empty. With an obstacle the result is EPERM and nothing is removed; `flagsStay` means that
/// the flags could not be changed.
int removeSingleObject(const Entry& entry, const Object& object, FileFlags& flags,
                       RemovalObstacle* obstacle);

struct RemovalOptions {
    /// Ends the removal with ECANCELED before the next object, and counts the objects that are
    /// removed. May be null. Borrowed.
    Cancellation* cancellation = nullptr;
    /// What was examined: another object at the address gives ESTALE. May be null. Borrowed.
    const struct statx* expected = nullptr;
    /// Set to true as soon as an object has been removed. May be null. Borrowed.
    bool* begun = nullptr;
};

/// Removes the object with all it contains, and clears no flags. Ends at the first failure; EBUSY
/// for a directory on which something is mounted, which keeps its contents. `*failedPath`: where
/// below it the removal ended, empty for the object itself.
int removeTree(const ObjectAddress& object, const RemovalOptions& options, std::string* failedPath);

}  // namespace corvalen
