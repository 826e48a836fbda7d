// SPDX-License-Identifier: MIT
// Limits the extra threads that walks start while they wait for the disk.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>

namespace corvalen {

/// The extra threads of all walks in the process, each charged to a user. The walks of one user get
/// at most half of what those of other users leave: 30 of 60 for the only user, 15 for a second.
/// Any thread may call.
class ExtraWorkers {
  public:
    static constexpr int kMost = 60;

    /// Charges one thread to `user`. Returns false if the user has his share.
    [[nodiscard]] bool take(std::uint32_t user) noexcept;
    void giveBack(std::uint32_t user) noexcept;

  private:
    std::mutex _mutex;
    /// Users of the taken threads: the first `_taken` elements.
    std::array<std::uint32_t, kMost> _users{};
    int _taken = 0;
};

}  // namespace corvalen
