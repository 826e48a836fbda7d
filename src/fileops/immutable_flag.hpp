// SPDX-License-Identifier: MIT
// The user immutable flag of single objects and of whole trees.
#pragma once

#include <cstdint>

#include "platform/file_flags.hpp"
#include "platform/object_address.hpp"
#include "platform/subtree_walk.hpp"

struct statx;

namespace corvalen {

/// Sets or clears the flag of an object that statx(2) described as `attributes`; no system call
/// when it is as wanted. 0 or an errno. That a file system keeps no flags is no failure when
/// clearing.
int changeImmutableFlag(FileFlags& fileFlags, const ObjectAddress& object,
                        const struct statx& attributes, bool flag);

/// What a change of a tree covers, and how it ends. Borrows everything.
struct FlagChangeBounds {
    /// The object on whose mount the change stays, as statx(2) described it with
    /// objectStatxMask(); null for all mounts.
    const struct statx* volume = nullptr;
    TreeWalkOptions::Mounts mounts = TreeWalkOptions::Mounts::entered;
    Cancellation& cancellation;
    /// Whether the objects are counted as finished.
    bool counts = true;
};

/// Sets or clears the flag of everything below the open directory, each directory before its
/// contents; of links the target. Passes over objects whose type carries no flag on any file
/// system, and directories that cannot be listed. Ends at the first failure with its errno:
/// EBUSY at a mount when the walk refuses mounts, ECANCELED when it was cancelled.
int changeImmutableFlagsBelow(FileFlags& fileFlags, int directory, bool flag,
                              const FlagChangeBounds& bounds);

/// The device number in 32 bits.
[[nodiscard]] std::uint32_t deviceIdentifier(const struct statx& attributes) noexcept;

}  // namespace corvalen
