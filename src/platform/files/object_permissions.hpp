// SPDX-License-Identifier: MIT
// Owners and modes of objects, for every operation that changes them. Follows no links, and opens
// nothing for reading or writing, so devices and pipes see no effect. Any thread may call.
#pragma once

#include <sys/types.h>

#include "platform/files/object_address.hpp"

namespace corvalen {

/// Leaves an owner or group unchanged.
inline constexpr unsigned kUnchangedID = 0xFFFFFFFF;

/// Changes owner and group, a link's own.
[[nodiscard]] Result<> changeOwner(const ObjectAddress& object, uid_t owner, gid_t group) noexcept;

/// Returns whether a file has capabilities (capabilities(7)), which the kernel silently removes
/// when owner or group change. False also if they cannot be read.
[[nodiscard]] bool hasFileCapabilities(const ObjectAddress& file);

/// Changes the permission bits; does nothing for a named link, which has none.
[[nodiscard]] Result<> changeMode(const ObjectAddress& object, mode_t mode) noexcept;

}  // namespace corvalen
