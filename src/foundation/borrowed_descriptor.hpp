// SPDX-License-Identifier: MIT
// A borrowed file descriptor.
#pragma once

#include <fcntl.h>

#include "corvalen/descriptor.hpp"

namespace corvalen {

/// A descriptor that somebody else owns and keeps open. Never closes it; -1 means none.
class Descriptor {
  public:
    constexpr Descriptor() noexcept = default;
    constexpr explicit Descriptor(int fd) noexcept : _fd(fd) {}
    // NOLINTNEXTLINE(google-explicit-constructor): every owner can lend
    Descriptor(const UniqueFd& owner) noexcept : _fd(owner.get()) {}
    /// A temporary would close it.
    Descriptor(UniqueFd&&) = delete;

    [[nodiscard]] constexpr int get() const noexcept { return _fd; }
    constexpr explicit operator bool() const noexcept { return _fd >= 0; }

  private:
    int _fd = -1;
};

/// Stands for the working directory in calls that take a directory.
inline constexpr Descriptor kWorkingDirectory{AT_FDCWD};

}  // namespace corvalen
