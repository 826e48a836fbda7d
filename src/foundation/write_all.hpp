// SPDX-License-Identifier: MIT
// Writes a whole buffer to a descriptor.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string_view>

namespace corvalen {

/// Writes all of `bytes`; blocks if the descriptor does. Returns 0, or the errno value of the
/// failed write(2), which may leave a part written.
[[nodiscard]] inline int writeAll(int fd, std::string_view bytes) noexcept {
    while (!bytes.empty()) {
        const ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return errno;
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return 0;
}

}  // namespace corvalen
