// SPDX-License-Identifier: MIT
// Extended attributes (xattr(7)) of objects at an address.
#pragma once

#include <cerrno>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/files/object_address.hpp"

namespace corvalen {

/// The access lists of acl(5).
inline constexpr const char* kAccessListAttribute = "system.posix_acl_access";
inline constexpr const char* kDefaultListAttribute = "system.posix_acl_default";

/// Returns whether an access to a list failed because the object has none, or can have none.
inline bool meansNoList(SystemError error) noexcept {
    return error == ENODATA || error == EOPNOTSUPP;
}

/// Use setxattrat(2) and the like; on kernels before 6.13 the path of an O_PATH descriptor under
/// /proc, which leads to the same object. Any thread may call.
[[nodiscard]] Result<std::vector<std::uint8_t>> getAttribute(const ObjectAddress& object,
                                                             const char* attribute);
[[nodiscard]] Result<> setAttribute(const ObjectAddress& object, const char* attribute,
                                    std::string_view value);
[[nodiscard]] Result<> removeAttribute(const ObjectAddress& object, const char* attribute);
[[nodiscard]] Result<std::vector<std::string>> listAttributes(const ObjectAddress& object);

/// Returns whether listxattr(2) lists any attribute; false also on failure.
bool hasAttributes(const ObjectAddress& object);

}  // namespace corvalen
