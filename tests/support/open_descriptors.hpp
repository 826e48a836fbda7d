// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <filesystem>

namespace corvalen::test {

/// Counts the open descriptors of a process, in this process with the one that reads the list.
inline std::ptrdiff_t openDescriptors(const std::filesystem::path& process = "/proc/self") {
    return std::distance(std::filesystem::directory_iterator(process / "fd"), {});
}

inline std::ptrdiff_t runningThreads(const std::filesystem::path& process = "/proc/self") {
    return std::distance(std::filesystem::directory_iterator(process / "task"), {});
}

}  // namespace corvalen::test
