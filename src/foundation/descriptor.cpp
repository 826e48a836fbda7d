// SPDX-License-Identifier: MIT
#include "corvalen/descriptor.hpp"

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

}  // namespace corvalen
