// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <filesystem>

namespace corvalen::test {

/// How many descriptors this process has; always counted with the same one for the counting.
inline std::ptrdiff_t openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

}  // namespace corvalen::test
