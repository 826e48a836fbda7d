// SPDX-License-Identifier: MIT
// The daemon's service: its listener, the main thread's loop, and the end of the process.
#pragma once

#include <signal.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "corvalen/descriptor.hpp"
#include "helper/activity.hpp"
#include "helper/helper_log.hpp"
#include "xpc/listener.hpp"

namespace corvalen {

/// SIGTERM, SIGINT and SIGHUP.
[[nodiscard]] sigset_t terminationSignals() noexcept;

/// Waits for a termination signal, which must be blocked, and for calls of `wake`.
class TerminationWait {
  public:
    /// Throws std::system_error if the descriptors are used up.
    TerminationWait();

    /// Returns true if a signal has arrived; false after `wake` or when `timeout` (std::nullopt:
    /// none) is over. One thread only.
    [[nodiscard]] bool wait(std::optional<std::chrono::milliseconds> timeout) noexcept;
    /// Ends the current wait, or the next one. Any thread.
    void wake() noexcept;

  private:
    UniqueFd _signals;
    UniqueFd _wakeUp;
};

/// Serves clients at the service socket until the process ends: after a termination signal, or once
/// the last client has unregistered and no request is running. Thread-safe but for the methods
/// marked "start-up".
class HelperService {
  public:
    /// The parts of the daemon that decide when the process may end; borrowed.
    struct Parts {
        HelperLog& log;
        ClientRegistry& clients;
        RunningRequests& requests;
    };
    /// Takes over a bound and listening socket. `ownSocketPath` is its path if this process made it
    /// and must remove it, else empty.
    HelperService(UniqueFd socket, std::string ownSocketPath, Parts parts);

    [[nodiscard]] Listener& listener() const noexcept { return *_listener; }

    /// Start-up: accepts clients until a termination signal arrives, which the caller has blocked
    /// in all threads. Then accepts nothing new, stops walks before their next object and copies of
    /// files, lets operations on single objects finish, and returns within a second.
    void run();
    /// Ends the process if no client is registered: at once, or once every running request has its
    /// reply, unless a client registers before that.
    void endWhenIdle();
    /// Ends the process with status 0, regardless of connections and running requests.
    [[noreturn]] void terminate();

  private:
    void endIfIdle();
    std::optional<std::chrono::milliseconds> handleWakeUp();
    void letOperationsFinish();
    void removeOwnSocket() noexcept;

    const Parts _parts;
    const std::string _ownSocketPath;
    std::shared_ptr<UserQuotaTable> _quotas = std::make_shared<UserQuotaTable>();
    TerminationWait _wait;
    /// The last client is unregistered: the process ends once no request is running.
    std::atomic<bool> _endRequested{false};
    std::unique_ptr<Listener> _listener;
};

}  // namespace corvalen
