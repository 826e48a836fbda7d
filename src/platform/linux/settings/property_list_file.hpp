// SPDX-License-Identifier: MIT
// Dictionaries in property list files.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "corvalen/value.hpp"
#include "foundation/borrowed_descriptor.hpp"
#include "foundation/result.hpp"

namespace corvalen {

/// In bytes.
inline constexpr std::size_t kMaximumPropertyListFileSize = std::size_t{16} * 1024 * 1024;

/// Reads the dictionary in the file `name` of an open directory; empty if the file is missing or
/// empty. Returns std::nullopt if the file cannot be read or has other contents.
[[nodiscard]] std::optional<Dictionary> readPropertyListFile(Descriptor folder,
                                                             const std::string& name);

/// Replaces the file as `replaceFile` does. EINVAL, without writing, for a dictionary that
/// could not be read back unchanged, EFBIG for one that is too large.
[[nodiscard]] Result<> writePropertyListFile(Descriptor folder, const std::string& name,
                                             const Dictionary& dictionary, mode_t mode);

}  // namespace corvalen
