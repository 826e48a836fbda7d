// SPDX-License-Identifier: MIT
// Dictionaries in property-list files.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "corvalen/value.hpp"

namespace corvalen {

inline constexpr std::size_t kMaximumPropertyListFileSize = std::size_t{16} * 1024 * 1024;

/// The dictionary in the file `name` of an open folder, empty without such a file and for a file of
/// length zero. Nothing when the file cannot be read or holds something else.
[[nodiscard]] std::optional<Dictionary> readPropertyListFile(int folder, const std::string& name);

/// Replaces the file as `replaceFile` does. 0 or the errno: EINVAL, and nothing is written, for a
/// dictionary that could not be read back as it is.
[[nodiscard]] int writePropertyListFile(int folder, const std::string& name,
                                        const Dictionary& dictionary, mode_t mode);

}  // namespace corvalen
