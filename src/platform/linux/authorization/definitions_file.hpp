// SPDX-License-Identifier: MIT
// Reads and removes small files of right definitions, if they can be trusted; atomic_file.hpp
// replaces them.
#pragma once

#include <sys/stat.h>

#include <string>

#include "foundation/borrowed_descriptor.hpp"
#include "foundation/result.hpp"

namespace corvalen {

/// Maximum size in bytes.
inline constexpr std::size_t kMaxDefinitionsFileSize = 256UL * 1024;

struct DefinitionsFile {
    UniqueFd file;
    /// Read before the text.
    struct stat attributes {};
    std::string text;
};

/// Reads the regular file `name` of an open directory; follows no link. EFBIG above the limit,
/// EPERM if it is not a regular file or a user other than root and this process's may write it.
[[nodiscard]] Result<DefinitionsFile> readDefinitionsFile(Descriptor folder, const char* name);

/// Removes the file and syncs the directory.
[[nodiscard]] Result<> removeDefinitionsFile(Descriptor folder, const std::string& name);

/// Opens a directory and locks it against other writers (flock(2)) until the descriptor is closed.
[[nodiscard]] Result<UniqueFd> openLockedFolder(const std::string& path);

}  // namespace corvalen
