// SPDX-License-Identifier: MIT
// Type code, creator code and invisible bit, in the 32 bytes in which file servers store them for
// their clients.
#pragma once

#include <cstdint>

#include "platform/files/object_address.hpp"

namespace corvalen {

/// Extended attribute of 32 bytes: type and creator (four bytes each, big-endian), 16 bits of flags
/// (big-endian, 0x4000 = invisible), and 22 bytes that are kept unread.
inline constexpr const char* kFinderInfoAttribute = "user.com.apple.FinderInfo";
inline constexpr std::size_t kFinderInfoLength = 32;

struct FinderInfo {
    std::uint32_t typeCode = 0;
    std::uint32_t creatorCode = 0;
    bool invisible = false;
};

/// Without the attribute all values are zero; an attribute that becomes
/// all zeros is removed. Only regular files and directories have "user" attributes (xattr(7)). Any
/// thread may call.
[[nodiscard]] Result<FinderInfo> readFinderInfo(const ObjectAddress& object);
[[nodiscard]] Result<> setFinderCodes(const ObjectAddress& object, std::uint32_t typeCode,
                                      std::uint32_t creatorCode);
[[nodiscard]] Result<> setFinderInvisible(const ObjectAddress& object, bool invisible);

}  // namespace corvalen
