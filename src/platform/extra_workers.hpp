// SPDX-License-Identifier: MIT
// The threads that walks add while their threads wait for the disk.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>

namespace corvalen {

/// How many extra threads all walks of the process have, and for which users. The walks of one user
/// get at most half of what those of other users leave: 30 of 60 for the only user, 15 for a second
/// one. Any thread may call.
class ExtraWorkers {
  public:
    static constexpr int kMost = 60;

    /// Takes one for a walk of this user. Returns false when the user has his share.
    [[nodiscard]] bool take(std::uint32_t user) noexcept;
    void giveBack(std::uint32_t user) noexcept;

  private:
    std::mutex _mutex;
    /// The users of those that are taken.
    std::array<std::uint32_t, kMost> _users{};
    int _taken = 0;
};

}  // namespace corvalen
