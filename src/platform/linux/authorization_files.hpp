// SPDX-License-Identifier: MIT
// Small files that hold definitions of rights: read within bounds, and only when they can be
// trusted. atomic_file.hpp replaces them.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <string_view>

#include "corvalen/descriptor.hpp"

namespace corvalen {

/// The most bytes that a file of definitions may have.
inline constexpr std::size_t kMaxDefinitionsFileSize = 256UL * 1024;

struct DefinitionsFile {
    UniqueFd file;
    /// As they were before the text was read.
    struct stat attributes {};
    std::string text;
};

/// Reads the regular file `name` of an open folder; no link is followed. Nothing and errno for a
/// file that is missing (ENOENT), larger than the limit (EFBIG), or that somebody besides root and
/// the user of this process may write (EPERM).
[[nodiscard]] std::optional<DefinitionsFile> readDefinitionsFile(int folder, const char* name);

/// Removes the file and syncs the folder. False and errno on failure.
[[nodiscard]] bool removeDefinitionsFile(int folder, const std::string& name);

/// Opens a folder, locked against other writers (flock(2)) until the descriptor is closed.
[[nodiscard]] UniqueFd openLockedFolder(const std::string& path);

}  // namespace corvalen
