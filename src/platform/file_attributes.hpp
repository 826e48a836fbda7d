// SPDX-License-Identifier: MIT
// All attributes of an object at once: read from one object, given to another.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/file_flags.hpp"

namespace corvalen {

/// All that the system knows of an object and that another object can be given. The date of
/// creation is read but never given: Linux has no call that sets it.
struct FileAttributes {
    struct ExtendedAttribute {
        std::string name;
        std::vector<std::uint8_t> value;
    };
    struct statx status {};
    std::uint32_t flags = 0;
    /// Access lists among them: they are attributes of the system's name space.
    std::vector<ExtendedAttribute> extendedAttributes;
};

struct AttributeChange {
    bool dates = false;
    bool flags = false;
    /// Leave out what the file system refuses (EPERM): owners on FAT, for example. Without its
    /// owner an object loses the set-ID bits. Else a refusal is an error.
    bool leaveOutRefused = false;
};

/// Each returns 0 or an errno. A descriptor may be O_PATH. Any thread may call.

int readAllAttributes(int descriptor, FileFlags& flags, FileAttributes* attributes);

/// Gives the open object owner, mode and extended attributes, and what `change` names. What the
/// file system has no place for is left out; where that is the access list, the group keeps no
/// more rights than the list gave it.
int applyAllAttributes(int descriptor, FileFlags& flags, const FileAttributes& attributes,
                       const AttributeChange& change);

}  // namespace corvalen
