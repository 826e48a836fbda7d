// SPDX-License-Identifier: MIT
// Access control lists as people write them.
#pragma once

#include <string>

#include "corvalen/value.hpp"

namespace corvalen::cli {

/// The external form of a list in text form (acl(5), short or long:
/// "u::rw-,u:ada:r--,g::r--,o::-"). A mask that named entries need is added. The external form is
/// the kernel's attribute format: version 2 and entries of tag, permissions and id, little-endian.
/// Entries that begin with "default:" or "d:" make a second list, which follows the first.
/// A UsageError says what is wrong.
[[nodiscard]] Data aclFromText(const std::string& text);

/// A four-character code: up to four characters, filled up with spaces, as a big-endian number; or
/// a number written with 0x. Empty stands for 0. A UsageError for anything else.
[[nodiscard]] std::uint32_t parseFourCharacterCode(const std::string& text);

}  // namespace corvalen::cli
