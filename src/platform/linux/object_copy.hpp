// SPDX-License-Identifier: MIT
// Attributes, copies and removal of objects, below the file manager. Each function gives 0 or an
// errno.
#pragma once

#include <string>

#include "platform/file_flags.hpp"
#include "platform/file_manager.hpp"
#include "platform/object_address.hpp"

namespace corvalen {

enum class Dates : std::uint8_t { leave, carry };

/// Reads all attributes of the object that `anchor` (O_PATH will do) is open at.
int readAllAttributes(int anchor, FileFlags& flags, FileAttributes* attributes);
/// Gives them to another open object; the flags last, since they may forbid everything else.
int applyAllAttributes(int anchor, FileFlags& flags, const FileAttributes& attributes, Dates dates);

/// Copies the object, which is no link to be followed, with all it contains. `*created` tells
/// whether anything was made at the destination.
int copyTree(const ObjectAddress& from, const ObjectAddress& to, FileFlags& flags, bool* created);

/// Removes the object with all it contains. `*failedPath`: where below it the removal ended, empty
/// for the object itself.
int removeTree(const ObjectAddress& object, std::string* failedPath);

}  // namespace corvalen
