// SPDX-License-Identifier: MIT
// The flags word of a file system object, with the bits of chflags(2) on BSD systems. On Linux the
// inode attributes "i" and "a" (ioctl_iflags(2)) stand behind it.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/object_address.hpp"

struct statx;

namespace corvalen {

inline constexpr std::uint32_t kUserImmutableFlag = 0x2;
inline constexpr std::uint32_t kUserAppendFlag = 0x4;
inline constexpr std::uint32_t kSystemImmutableFlag = 0x20000;
inline constexpr std::uint32_t kSystemAppendFlag = 0x40000;
/// What an administrator may clear while the system runs, and what nobody may.
inline constexpr std::uint32_t kUserProtectionFlags = kUserImmutableFlag | kUserAppendFlag;
inline constexpr std::uint32_t kSystemProtectionFlags = kSystemImmutableFlag | kSystemAppendFlag;

/// Reads and changes flags words. Any thread may call.
class FileFlags {
  public:
    virtual ~FileFlags() = default;

    /// The flags word of `object`, which statx(2) described as `attributes` (no field of the mask
    /// is needed). Without a system call where statx told. 0, or an errno: ENOTSUP where the file
    /// system keeps no flags.
    virtual int readFlags(const ObjectAddress& object, const struct statx& attributes,
                          std::uint32_t* flags) = 0;
    /// Gives `object` this flags word; bits other than the four above are not looked at, and
    /// inode attributes without a bit stay. 0, or an errno: ENOTSUP where the file system or the
    /// type of the object keeps no flags. Opens nothing that has side effects.
    virtual int setFlags(const ObjectAddress& object, std::uint32_t flags) = 0;
};

/// The kernel's flags. The attributes are user bits while this process may change them
/// (CAP_LINUX_IMMUTABLE, asked once), else system bits.
[[nodiscard]] std::unique_ptr<FileFlags> makeFileFlags();

/// Whether statx(2), asked for the type, described a whiteout: the type bits 0xE000, or the
/// character device 0:0 by which an overlay hides an object of its lower layer.
[[nodiscard]] bool isWhiteout(const struct statx& attributes) noexcept;

}  // namespace corvalen
