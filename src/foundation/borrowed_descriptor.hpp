// SPDX-License-Identifier: MIT
// Borrowed file descriptors, and writing to them.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <string_view>

#include "corvalen/descriptor.hpp"
#include "foundation/result.hpp"

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

inline constexpr Descriptor kStandardInput{STDIN_FILENO};
inline constexpr Descriptor kStandardOutput{STDOUT_FILENO};
inline constexpr Descriptor kStandardError{STDERR_FILENO};

/// Writes all of `bytes`; blocks if the descriptor does. A failed write(2) may leave a part
/// written.
[[nodiscard]] Result<> writeAll(Descriptor file, std::string_view bytes) noexcept;

}  // namespace corvalen
