// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <thread>

namespace corvalen::test {

/// How long a test waits for what has to happen, however loaded the machine is.
inline constexpr std::chrono::seconds kPatience{60};

/// True as soon as `condition` holds, false when it does not within `kPatience`.
template <class Condition>
bool eventually(const Condition& condition) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace corvalen::test
