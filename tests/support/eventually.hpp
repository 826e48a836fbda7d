// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <thread>

namespace corvalen::test {

/// How long a test waits for an event that must happen, also on a loaded machine.
inline constexpr std::chrono::seconds kPatience{60};

/// Returns true as soon as `condition` holds, false after `patience`.
template <class Condition>
bool eventually(const Condition& condition, std::chrono::milliseconds patience = kPatience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace corvalen::test
