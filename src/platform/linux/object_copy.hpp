// SPDX-License-Identifier: MIT
// Attributes, copies and removal of objects, below the file manager. Each function gives 0 or an
// errno.
#pragma once

#include <string>

#include "platform/entry.hpp"
#include "platform/file_flags.hpp"
#include "platform/file_manager.hpp"
#include "platform/file_manager_tree.hpp"
#include "platform/object_address.hpp"

namespace corvalen {

/// Copies the object, a directory with all it contains, to an address in a directory that nobody
/// else may enter. Flags are not carried. `*made` is open at the copy. ECANCELED when the progress
/// says so. What was made stays on failure.
int copyTree(const Object& from, const ObjectAddress& to, FileFlags& flags, TreeProgress& progress,
             Object* made);

struct RemovalOptions {
    /// Null: nothing ends the removal. Borrowed.
    TreeProgress* progress = nullptr;
    /// What was examined: another object at the address gives ESTALE. Borrowed.
    const struct statx* expected = nullptr;
    /// Set to true as soon as an object has been removed. Borrowed.
    bool* begun = nullptr;
};

/// Removes the object with all it contains. EBUSY for a directory on which something is mounted,
/// which keeps its contents. `*failedPath`: where below it the removal ended, empty for the object
/// itself.
int removeTree(const ObjectAddress& object, const RemovalOptions& options, std::string* failedPath);

/// Moves the object to another file system: all of it or nothing. See FileManager::moveItem.
/// `*failedPath` is where below `from` it ended; `*aboutDestination` that `to` is concerned.
int moveAcross(const Entry& from, const Entry& to, FileFlags& flags, std::string* failedPath,
               bool* aboutDestination);

}  // namespace corvalen
