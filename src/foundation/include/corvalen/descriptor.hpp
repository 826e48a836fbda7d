// SPDX-License-Identifier: MIT
// An owned file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace corvalen {

/// Owns one file descriptor and closes it. Movable, not copyable; -1 means that it owns none. Not
/// thread-safe.
class UniqueFd {
  public:
    UniqueFd() noexcept = default;
    explicit UniqueFd(int fd) noexcept : _fd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : _fd(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    [[nodiscard]] int get() const noexcept { return _fd; }
    explicit operator bool() const noexcept { return _fd >= 0; }
    /// Returns the descriptor and gives up ownership.
    [[nodiscard]] int release() noexcept { return std::exchange(_fd, -1); }
    /// Closes the owned descriptor and takes `fd`. Preserves errno.
    void reset(int fd = -1) noexcept;

  private:
    int _fd = -1;
};

}  // namespace corvalen
