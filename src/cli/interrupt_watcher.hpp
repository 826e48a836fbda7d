// SPDX-License-Identifier: MIT
// Turns Ctrl-C and its like into an orderly end.
#pragma once

#include <signal.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>

#include "corvalen/descriptor.hpp"

namespace corvalen::cli {

/// While it lives, SIGINT, SIGTERM and SIGHUP are blocked in the calling thread and in the threads
/// that it starts, and are received by a thread of the watcher. The first one leads to
/// `onInterrupt` on that thread, `grace` later; when the watcher is destroyed within the grace it
/// does not come. A second one ends the process at once.
class InterruptWatcher {
  public:
    struct Handlers {
        std::function<void()> onInterrupt;
        /// Called now and then, for a progress line; may be empty.
        std::function<void()> onTick;
        std::chrono::milliseconds grace{0};
    };

    explicit InterruptWatcher(Handlers handlers);
    ~InterruptWatcher();
    InterruptWatcher(const InterruptWatcher&) = delete;
    InterruptWatcher& operator=(const InterruptWatcher&) = delete;

    /// The signal that led to `onInterrupt`, 0 before.
    [[nodiscard]] int interruptedBy() const noexcept { return _interruptedBy; }
    /// The first signal, also while its grace lasts; 0 before.
    /// Sees a signal that the watcher's thread has not read yet, which then leads to nothing more.
    [[nodiscard]] int signalSeen() noexcept;

  private:
    void watch();
    /// The signal that has arrived; 0 after the timeout; -1 when the watcher ends.
    int waitForSignal(std::chrono::milliseconds timeout);
    /// Reads a pending signal; 0 if there is none.
    int takeSignal() noexcept;
    void interrupt(int signal);

    const Handlers _handlers;
    sigset_t _signals{};
    sigset_t _maskBefore{};
    UniqueFd _signalDescriptor;
    UniqueFd _endDescriptor;
    std::atomic<int> _interruptedBy = 0;
    std::mutex _lock;  // makes one step of reading a signal and setting `_signalSeen`
    int _signalSeen = 0;
    std::thread _thread;
};

}  // namespace corvalen::cli
