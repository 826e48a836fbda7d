// SPDX-License-Identifier: MIT
// Turns Ctrl-C and its like into an orderly end.
#pragma once

#include <signal.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <thread>

#include "corvalen/descriptor.hpp"

namespace corvalen::cli {

/// While it lives, SIGINT, SIGTERM and SIGHUP are blocked in the calling thread and in the threads
/// that it starts, and are received by a thread of the watcher. The first one leads to
/// `onInterrupt` on that thread at once, and to `onOverdue` when the watcher still lives `patience`
/// later. A second one ends the process at once.
class InterruptWatcher {
  public:
    struct Handlers {
        /// Gives the patience.
        std::function<std::chrono::milliseconds()> onInterrupt;
        std::function<void()> onOverdue;
        /// Called now and then, for a progress line; may be empty.
        std::function<void()> onTick;
    };

    explicit InterruptWatcher(Handlers handlers);
    ~InterruptWatcher();
    InterruptWatcher(const InterruptWatcher&) = delete;
    InterruptWatcher& operator=(const InterruptWatcher&) = delete;

    /// The first signal, 0 before. Sees one that the watcher's thread has not read yet, which then
    /// leads to nothing more.
    [[nodiscard]] int interruptedBy() noexcept;

  private:
    void watch();
    /// The signal that has arrived; 0 after the timeout; -1 when the watcher ends.
    int waitForSignal(std::chrono::milliseconds timeout);
    /// Reads a pending signal. Returns 0 without one.
    int takeSignal() noexcept;
    void interrupt(int signal);

    const Handlers _handlers;
    sigset_t _signals{};
    sigset_t _maskBefore{};
    UniqueFd _signalDescriptor;
    UniqueFd _endDescriptor;
    std::mutex _lock;  // makes one step of reading a signal and setting `_firstSignal`
    int _firstSignal = 0;
    /// Of the watcher's thread.
    bool _isInterrupted = false;
    std::thread _thread;
};

}  // namespace corvalen::cli
