// SPDX-License-Identifier: MIT
// Owners and modes of objects inside an open folder (fchownat(2), fchmodat2(2)). Links are never
// followed.
#pragma once

#include <sys/types.h>

#include "platform/object_address.hpp"

namespace corvalen {

/// An owner or group that stays as it is.
inline constexpr unsigned kUnchangedID = 0xFFFFFFFF;

/// Changes the owner and group of `name` inside `parent`, a link's own. 0 or an errno.
int changeOwnerAt(int parent, const char* name, uid_t owner, gid_t group) noexcept;
/// The same of an object that is open for reading.
int changeOwnerOf(int descriptor, uid_t owner, gid_t group) noexcept;

/// Whether a file has capabilities (capabilities(7)), which the kernel removes without an error
/// when the owner or group changes. False also where they cannot be read.
[[nodiscard]] bool hasFileCapabilities(const ObjectAddress& file);

/// Changes the permission bits of `name` inside `parent`. A link has none: nothing is done then.
/// Nothing is opened, so that no device or pipe notices. 0 or an errno.
int changeModeAt(int parent, const char* name, mode_t mode) noexcept;
/// The same of an object that is open for reading, or as an anchor (openAnchor).
int changeModeOf(int descriptor, mode_t mode) noexcept;
int changeModeOfAnchor(int anchor, mode_t mode) noexcept;

}  // namespace corvalen
