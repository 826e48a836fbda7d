// SPDX-License-Identifier: MIT
// Removal of objects, for every operation that removes something, and copies of objects with their
// contents. Any thread may call. Nothing is synced.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

#include "foundation/cancellation.hpp"
#include "platform/files/entry.hpp"
#include "platform/files/file_attributes.hpp"

namespace corvalen {

/// Resolves a path to remove: the entry, and the object there, a link itself. EINVAL for "." and
/// "..", EBUSY for "/". meansMissing() is true for the error if nothing exists there. The caller
/// must call checkType().
[[nodiscard]] Result<LocatedObject> openForRemoval(const ClientPath& path);

/// Reasons against removing a single object, apart from failed system calls.
enum class RemovalObstacle : std::uint8_t { none, whiteout, systemFlags, flagsStay };

/// Calls checkType(), clears the flags that may be cleared, and removes the object with
/// unlinkat(2); a directory must be empty. Returns the obstacle because of which it removed
/// nothing; `flagsStay` means that changing the flags failed.
[[nodiscard]] Result<RemovalObstacle> removeSingleObject(const LocatedObject& located,
                                                         FileFlags& flags);

struct RemovalOptions {
    /// Ends the removal with ECANCELED before the next object, and counts removed objects. May be
    /// null. Borrowed.
    Cancellation* cancellation = nullptr;
    /// The object that was examined; another one at the address fails with ESTALE. May be null.
    /// Borrowed.
    const struct statx* expected = nullptr;
    /// Becomes true once an object was removed. May be null. Borrowed.
    std::atomic<bool>* begun = nullptr;
};

/// The failure of a walk, and its path below the top; empty for the top itself.
struct TreeError : SystemError {
    // NOLINTNEXTLINE(google-explicit-constructor): a failure at the top
    TreeError(SystemError error, std::string_view place = {}) : SystemError(error), path(place) {}

    std::string path;
};

/// Removes the object with its contents; clears no flags. Ends with the first failure in the order
/// of a walk, and with EBUSY at a directory on which something is mounted, which keeps its
/// contents. Two threads remove the files of a large tree, so some files that come after the
/// failure may be gone.
[[nodiscard]] Result<void, TreeError> removeTree(const ObjectAddress& object,
                                                 const RemovalOptions& options);

/// Copies the object, a directory with its contents, to an address in a directory that no other
/// user can enter. Does not copy flags. Returns the open copy. ECANCELED after the cancellation,
/// in a file only if the process ends. The cancellation also counts objects. On failure the partial
/// copy stays.
[[nodiscard]] Result<Object> copyTree(const Object& from, const ObjectAddress& to, FileFlags& flags,
                                      Cancellation& cancellation);

}  // namespace corvalen
