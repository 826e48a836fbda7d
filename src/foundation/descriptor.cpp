// SPDX-License-Identifier: MIT
#include "foundation/descriptor.hpp"

#include <cerrno>

namespace corvalen {

void UniqueFd::reset(int fd) noexcept {
    const int old = std::exchange(_fd, fd);
    if (old < 0 || old == fd) return;
    const int saved = errno;
    // A descriptor is gone after close(2) on Linux whatever it returns; there is nothing to retry.
    (void)::close(old);
    errno = saved;
}

int writeAll(int fd, std::string_view bytes) noexcept {
    while (!bytes.empty()) {
        const ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return errno;
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return 0;
}

}  // namespace corvalen
