// SPDX-License-Identifier: MIT
// The attributes of an object: its flags word, what file servers store for their clients, and all
// of them together, read from one object and applied to another.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/files/object_address.hpp"

namespace corvalen {

// The flags word, with the bits of chflags(2) on BSD systems. On Linux it maps the inode attributes
// "i" and "a" (ioctl_iflags(2)).

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

// All attributes.

/// The attributes of an object. The birth time is read but never applied: Linux has no call that
/// sets it.
struct FileAttributes {
    struct ExtendedAttribute {
        std::string name;
        std::vector<std::uint8_t> value;
    };
    struct statx status {};
    std::uint32_t flags = 0;  // as FileFlags defines them
    /// Includes access lists, which are attributes of the "system" name space.
    std::vector<ExtendedAttribute> extendedAttributes;
};

/// Options of applyAllAttributes(), which always applies owner, mode and extended attributes.
struct AttributeChange {
    bool dates = false;
    bool flags = false;
    /// Skip what the file system refuses (EPERM), for example owners on FAT; an object without its
    /// owner loses the set-ID bits. If false, a refusal is an error.
    bool leaveOutRefused = false;
};

/// The descriptors may be O_PATH. Any thread may call.

[[nodiscard]] Result<FileAttributes> readAllAttributes(Descriptor descriptor, FileFlags& flags);

/// Applies owner, mode, extended attributes and the parts that `change` selects to the open object.
/// Skips what the file system does not support; without the access list, the group gets only the
/// rights that the list gave it.
[[nodiscard]] Result<> applyAllAttributes(Descriptor descriptor, FileFlags& flags,
                                          const FileAttributes& attributes,
                                          const AttributeChange& change);

// Type code, creator code and invisible bit, in the 32 bytes in which file servers store them for
// their clients.

/// Extended attribute of 32 bytes: type and creator (four bytes each, big-endian), 16 bits of flags
/// (big-endian, 0x4000 = invisible), and 22 bytes that are kept unread.
inline constexpr const char* kFinderInfoAttribute = "user.com.apple.FinderInfo";
inline constexpr std::size_t kFinderInfoLength = 32;

struct FinderInfo {
    std::uint32_t typeCode = 0;
    std::uint32_t creatorCode = 0;
    bool invisible = false;
};

/// Without the attribute all values are zero; an attribute that becomes all zeros is removed. Only
/// regular files and directories have "user" attributes (xattr(7)). Any thread may call.
[[nodiscard]] Result<FinderInfo> readFinderInfo(const ObjectAddress& object);
[[nodiscard]] Result<> setFinderCodes(const ObjectAddress& object, std::uint32_t typeCode,
                                      std::uint32_t creatorCode);
[[nodiscard]] Result<> setFinderInvisible(const ObjectAddress& object, bool invisible);

}  // namespace corvalen
