// SPDX-License-Identifier: MIT
// The flags word of an object, with the bits of chflags(2) on BSD systems. On Linux it maps the
// inode attributes "i" and "a" (ioctl_iflags(2)).
#pragma once

#include <cstdint>
#include <memory>

#include "platform/files/object_address.hpp"

struct statx;

namespace corvalen {

inline constexpr std::uint32_t kUserImmutableFlag = 0x2;
inline constexpr std::uint32_t kUserAppendFlag = 0x4;
inline constexpr std::uint32_t kSystemImmutableFlag = 0x20000;
inline constexpr std::uint32_t kSystemAppendFlag = 0x40000;
/// Flags that root can clear while the system runs, and flags that nobody can.
inline constexpr std::uint32_t kUserProtectionFlags = kUserImmutableFlag | kUserAppendFlag;
inline constexpr std::uint32_t kSystemProtectionFlags = kSystemImmutableFlag | kSystemAppendFlag;

/// Reads and changes flags words. Any thread may call.
class FileFlags {
  public:
    virtual ~FileFlags() = default;

    /// Reads the flags word of `object`; `attributes` is any result of statx(2) for it. Makes no
    /// system call if statx() already reported the flags. ENOTSUP if the file system has no flags.
    [[nodiscard]] virtual Result<std::uint32_t> readFlags(const ObjectAddress& object,
                                                          const struct statx& attributes) = 0;
    /// Sets the flags word. Ignores bits other than the four above, and keeps inode attributes
    /// without a bit. ENOTSUP if the file system or the type of the object has no flags. Opens
    /// nothing that has side effects.
    [[nodiscard]] virtual Result<> setFlags(const ObjectAddress& object, std::uint32_t flags) = 0;
};

/// Maps inode attributes to the user bits if this process is permitted to change them
/// (CAP_LINUX_IMMUTABLE, checked here), else to the system bits.
[[nodiscard]] std::unique_ptr<FileFlags> makeFileFlags();

/// Returns whether `attributes`, read with STATX_TYPE, describe a whiteout: type bits 0xE000, or
/// the character device 0:0, with which an overlay hides an object of its lower layer.
[[nodiscard]] bool isWhiteout(const struct statx& attributes) noexcept;

}  // namespace corvalen
