// SPDX-License-Identifier: MIT
// All attributes of an object: read from one object, applied to another.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/files/file_flags.hpp"

namespace corvalen {

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

}  // namespace corvalen
