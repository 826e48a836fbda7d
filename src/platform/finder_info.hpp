// SPDX-License-Identifier: MIT
// Type and creator codes and the invisible bit, in the 32 bytes that file servers keep for clients
// that know them.
#pragma once

#include <cstdint>

#include "platform/object_address.hpp"

namespace corvalen {

/// The extended attribute that holds the bytes: type and creator (four bytes each, big-endian),
/// 16 bits of flags (big-endian, 0x4000 = invisible), and 22 bytes that are not looked at.
inline constexpr const char* kFinderInfoAttribute = "user.com.apple.FinderInfo";
inline constexpr std::size_t kFinderInfoLength = 32;

struct FinderInfo {
    std::uint32_t typeCode = 0;
    std::uint32_t creatorCode = 0;
    bool invisible = false;
};

/// Each gives 0 or an errno. An object without the attribute has all zeros; an attribute of all
/// zeros is removed. Attributes of this name space exist on regular files and folders only.
int readFinderInfo(const ObjectAddress& object, FinderInfo* info);
int setFinderCodes(const ObjectAddress& object, std::uint32_t typeCode, std::uint32_t creatorCode);
int setFinderInvisible(const ObjectAddress& object, bool invisible);

}  // namespace corvalen
