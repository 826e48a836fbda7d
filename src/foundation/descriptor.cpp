// SPDX-License-Identifier: MIT
#include "corvalen/descriptor.hpp"

#include <cerrno>

namespace corvalen {

void UniqueFd::reset(int fd) noexcept {
    const int old = std::exchange(_fd, fd);
    if (old < 0 || old == fd) return;
    const int saved = errno;
    // On Linux close(2) frees the descriptor even if it fails: no retry.
    (void)::close(old);
    errno = saved;
}

}  // namespace corvalen
