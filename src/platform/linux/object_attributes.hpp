// SPDX-License-Identifier: MIT
// Extended attributes (xattr(7)) of objects that are addressed relative to an open folder.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/object_address.hpp"

namespace corvalen {

/// Each gives 0 or an errno. They use setxattrat(2) and its like, and on kernels before 6.13 an
/// O_PATH descriptor and its path under /proc, which acts on the same object.
int getAttribute(const ObjectAddress& object, const char* attribute,
                 std::vector<std::uint8_t>* value);
int setAttribute(const ObjectAddress& object, const char* attribute, std::string_view value);
int removeAttribute(const ObjectAddress& object, const char* attribute);
int listAttributes(const ObjectAddress& object, std::vector<std::string>* attributes);

/// Whether listxattr(2) shows any attribute; false also where none can be read.
bool hasAttributes(const ObjectAddress& object);

}  // namespace corvalen
