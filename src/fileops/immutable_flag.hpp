// SPDX-License-Identifier: MIT
// The user immutable flag of single objects and of whole trees.
#pragma once

#include <cstdint>

#include "platform/file_flags.hpp"
#include "platform/object_address.hpp"

struct statx;

namespace corvalen {

/// Sets or clears the flag of an object that statx(2) described as `attributes`; no system call
/// when it is as wanted. 0 or an errno. That a file system keeps no flags is no failure when
/// clearing.
int changeImmutableFlag(FileFlags& fileFlags, const ObjectAddress& object,
                        const struct statx& attributes, bool flag);
/// The same with the target of a symbolic link, which is opened once, so that what was looked at
/// is what is changed. A link without a target is passed over; with `checking` it gives ENOENT.
int changeImmutableFlagOfLinkTarget(FileFlags& fileFlags, const ObjectAddress& link, bool flag,
                                    bool checking);

/// How far a change of a tree goes.
struct TreeBounds {
    bool stayOnDevice = false;
    std::uint32_t device = 0;
};

/// Sets or clears the flag of everything below the folder, each folder before its contents; of
/// links the target. Ends at the first failure with its errno. A folder that cannot be listed is
/// passed over.
int changeImmutableFlagsBelow(FileFlags& fileFlags, const ObjectAddress& folder, bool flag,
                              TreeBounds bounds = {});

/// The device number in 32 bits.
[[nodiscard]] std::uint32_t deviceIdentifier(const struct statx& attributes) noexcept;

}  // namespace corvalen
