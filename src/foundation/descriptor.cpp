// SPDX-License-Identifier: MIT
#include "corvalen/descriptor.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstddef>

#include "foundation/borrowed_descriptor.hpp"

namespace corvalen {

void UniqueFd::reset(int fd) noexcept {
    const int old = std::exchange(_fd, fd);
    if (old < 0 || old == fd) return;
    const int saved = errno;
    // On Linux close(2) frees the descriptor even if it fails: no retry.
    (void)::close(old);
    errno = saved;
}

Result<> writeAll(Descriptor file, std::string_view bytes) noexcept {
    while (!bytes.empty()) {
        const ssize_t written = ::write(file.get(), bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return failure(errno);
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return {};
}

}  // namespace corvalen
