// SPDX-License-Identifier: MIT
// Copies and moves of objects, below the file manager. Each function gives 0 or an errno.
#pragma once

#include <string>

#include "foundation/cancellation.hpp"
#include "platform/entry.hpp"
#include "platform/file_flags.hpp"
#include "platform/file_manager.hpp"
#include "platform/object_address.hpp"

namespace corvalen {

/// Copies the object, a directory with all it contains, to an address in a directory that nobody
/// else may enter. Flags are not carried. `*made` is open at the copy. ECANCELED when the
/// cancellation is requested, which also counts the objects. What was made stays on failure.
int copyTree(const Object& from, const ObjectAddress& to, FileFlags& flags,
             Cancellation& cancellation, Object* made);

/// Moves the object to another file system: all of it or nothing. See FileManager::moveItem.
/// `*failedPath` is where below `from` it ended; `*aboutDestination` that `to` is concerned.
int moveAcross(const Entry& from, const Entry& to, FileFlags& flags, std::string* failedPath,
               bool* aboutDestination);

}  // namespace corvalen
