// SPDX-License-Identifier: MIT
// Access control lists and four-character codes in text form.
#pragma once

#include <string>

#include "corvalen/value.hpp"

namespace corvalen::cli {

/// Converts a list in the short or long text form of acl(5), as in "u::rw-,u:ada:r--,g::r--,o::-",
/// to its external form: the kernel's attribute format, which is version 2 and little-endian
/// entries of tag, permissions and id. Adds a mask if named entries need one. Entries that begin
/// with "default:" or "d:" form a second list after the first. Throws UsageError.
[[nodiscard]] Data aclFromText(const std::string& text);

/// Returns up to four characters, padded with spaces, as a big-endian number; a number with 0x as
/// such; 0 for an empty text. Throws UsageError for anything else.
[[nodiscard]] std::uint32_t parseFourCharacterCode(const std::string& text);

}  // namespace corvalen::cli
