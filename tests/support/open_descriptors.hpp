// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <filesystem>

namespace corvalen::test {

/// The number of open descriptors, with the one that counts them.
inline std::ptrdiff_t openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

}  // namespace corvalen::test
