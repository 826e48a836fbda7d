// SPDX-License-Identifier: MIT
// The user immutable flag of single objects and trees.
#pragma once

#include <cstdint>

#include "platform/files/file_flags.hpp"
#include "platform/files/object_address.hpp"
#include "platform/files/subtree_walk.hpp"

struct statx;

namespace corvalen {

/// Sets or clears the flag of `object`, whose statx(2) result is `attributes`. Makes no system
/// call if they already report the wanted value. Clearing succeeds on file systems without flags.
[[nodiscard]] Result<> changeImmutableFlag(FileFlags& fileFlags, const ObjectAddress& object,
                                           const struct statx& attributes, bool flag);

/// The scope of a change of a tree. Borrows the attributes and the cancellation.
struct FlagChangeBounds {
    /// The change stays on the mount of the object with these attributes, read with
    /// objectStatxMask(). Null for all mounts.
    const struct statx* volume = nullptr;
    TreeWalkOptions::Mounts mounts = TreeWalkOptions::Mounts::entered;
    Cancellation& cancellation;
    /// Whether to add the objects to the count of the cancellation.
    bool counts = true;
};

/// Sets or clears the flag of everything below the open directory, each directory before its
/// contents, and of the targets of symlinks. Skips types without flags, and directories that were
/// removed or replaced meanwhile. The first failure ends it: EBUSY at a refused mount, ECANCELED
/// when cancelled.
[[nodiscard]] Result<> changeImmutableFlagsBelow(FileFlags& fileFlags, Descriptor directory,
                                                 bool flag, const FlagChangeBounds& bounds);

/// Returns the low 32 bits of the device number.
[[nodiscard]] std::uint32_t deviceIdentifier(const struct statx& attributes) noexcept;

}  // namespace corvalen
