// SPDX-License-Identifier: MIT
#include "foundation/write_all.hpp"

#include <unistd.h>

#include <cerrno>

namespace corvalen {

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
