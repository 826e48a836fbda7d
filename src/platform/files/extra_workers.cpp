// SPDX-License-Identifier: MIT
#include "platform/files/extra_workers.hpp"

#include <algorithm>

namespace corvalen {

bool ExtraWorkers::take(std::uint32_t user) noexcept {
    const std::lock_guard lock(_mutex);
    const auto own = std::count(_users.begin(), _users.begin() + _taken, user);
    const auto others = _taken - own;
    if (own >= (kMost - others) / 2) return false;
    _users[static_cast<std::size_t>(_taken++)] = user;
    return true;
}

void ExtraWorkers::giveBack(std::uint32_t user) noexcept {
    const std::lock_guard lock(_mutex);
    const auto end = _users.begin() + _taken;
    const auto found = std::find(_users.begin(), end, user);
    if (found == end) return;
    *found = *(end - 1);
    --_taken;
}

}  // namespace corvalen
