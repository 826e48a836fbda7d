// SPDX-License-Identifier: MIT
// Small files that hold definitions of rights: read within bounds, and only when they can be
// trusted. atomic_file.hpp replaces them.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "foundation/descriptor.hpp"

struct stat;

namespace corvalen {

/// The most bytes that a file of definitions may have.
inline constexpr std::size_t kMaxDefinitionsFileSize = 256UL * 1024;

/// Reads the regular file `name` of an open folder; no link is followed. Nothing and errno for a
/// file that is missing (ENOENT), larger than the limit (EFBIG), or that somebody besides root and
/// the user of this process may write (EPERM). `*attributes`, when wanted, are those of the file
/// before it was read.
[[nodiscard]] std::optional<std::string> readDefinitionsFile(int folder, const char* name,
                                                             struct stat* attributes = nullptr);

/// Removes the file and syncs the folder. False and errno on failure.
[[nodiscard]] bool removeDefinitionsFile(int folder, const std::string& name);

/// Opens a folder, locked against other writers (flock(2)) until the descriptor is closed.
[[nodiscard]] UniqueFd openLockedFolder(const std::string& path);

}  // namespace corvalen
