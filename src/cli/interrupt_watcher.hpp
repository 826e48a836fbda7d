// SPDX-License-Identifier: MIT
// Turns SIGINT, SIGTERM and SIGHUP into an orderly end.
#pragma once

#include <signal.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <thread>

#include "corvalen/descriptor.hpp"

namespace corvalen::cli {

/// Blocks SIGINT, SIGTERM and SIGHUP in the calling thread, and so in threads that it starts later,
/// and receives them on a thread of its own (signalfd(2)). The first signal calls `onInterrupt` at
/// once, and `onOverdue` if the watcher still exists after the returned patience. A second signal
/// ends the process at once, with 128 plus its number.
class InterruptWatcher {
  public:
    struct Handlers {
        /// Returns the patience.
        std::function<std::chrono::milliseconds()> onInterrupt;
        std::function<void()> onOverdue;
        /// Called every 100 ms, for a progress line; may be empty.
        std::function<void()> onTick;
    };

    /// All handlers run on the watcher's thread.
    explicit InterruptWatcher(Handlers handlers);
    ~InterruptWatcher();
    InterruptWatcher(const InterruptWatcher&) = delete;
    InterruptWatcher& operator=(const InterruptWatcher&) = delete;

    /// Returns the first signal, 0 before one. Also reads a pending signal, for which no handler
    /// runs then. Any thread.
    [[nodiscard]] int interruptedBy() noexcept;

  private:
    void watch();
    /// Returns the signal that arrived; 0 after the timeout; -1 when the watcher ends.
    int waitForSignal(std::chrono::milliseconds timeout);
    /// Reads a pending signal. Returns 0 without one.
    int takeSignal() noexcept;
    void interrupt(int signal);

    const Handlers _handlers;
    sigset_t _signals{};
    sigset_t _maskBefore{};
    UniqueFd _signalDescriptor;
    UniqueFd _endDescriptor;
    std::mutex _lock;  // reading a signal and setting `_firstSignal` is one step
    int _firstSignal = 0;
    /// Only used by the watcher's thread.
    bool _isInterrupted = false;
    std::thread _thread;
};

}  // namespace corvalen::cli
