// SPDX-License-Identifier: MIT
// Copies and moves of objects, for the file manager. Each function returns 0 or an errno.
#pragma once

#include <string>

#include "foundation/cancellation.hpp"
#include "platform/files/entry.hpp"
#include "platform/files/file_flags.hpp"
#include "platform/files/file_manager.hpp"
#include "platform/files/object_address.hpp"

namespace corvalen {

/// Copies the object, a directory with its contents, to an address in a directory that no other
/// user can enter. Does not copy flags. `*made` opens the copy. ECANCELED after the cancellation,
/// which also counts objects. On failure the partial copy stays.
int copyTree(const Object& from, const ObjectAddress& to, FileFlags& flags,
             Cancellation& cancellation, Object* made);

/// Moves the object to another file system, all or nothing; see FileManager::moveItem. On failure
/// `*failedPath` is the path below `from` where it ended, and `*aboutDestination` means that the
/// error concerns `to`.
int moveAcross(const Entry& from, const Entry& to, FileFlags& flags, std::string* failedPath,
               bool* aboutDestination);

}  // namespace corvalen
