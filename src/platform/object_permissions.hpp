// SPDX-License-Identifier: MIT
// Owners and modes of objects: every operation that changes them uses these. Links are never
// followed. Nothing is opened, so that no device or pipe notices. Any thread may call.
#pragma once

#include <sys/types.h>

#include "platform/object_address.hpp"

namespace corvalen {

/// An owner or group that stays as it is.
inline constexpr unsigned kUnchangedID = 0xFFFFFFFF;

/// Changes the owner and group, a link's own. 0 or an errno.
int changeOwner(const ObjectAddress& object, uid_t owner, gid_t group) noexcept;

/// Whether a file has capabilities (capabilities(7)), which the kernel removes without an error
/// when the owner or group changes. False also where they cannot be read.
[[nodiscard]] bool hasFileCapabilities(const ObjectAddress& file);

/// Changes the permission bits. A named link has none: nothing is done then. 0 or an errno.
int changeMode(const ObjectAddress& object, mode_t mode) noexcept;

}  // namespace corvalen
