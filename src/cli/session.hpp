// SPDX-License-Identifier: MIT
// A connection to the daemon, registered and interruptible.
#pragma once

#include <signal.h>

#include <chrono>
#include <corvalen/client.hpp>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "cli/command.hpp"
#include "corvalen/descriptor.hpp"

namespace corvalen::cli {

/// Blocks SIGINT, SIGTERM and SIGHUP in the calling thread, and so in threads that it starts later,
/// and receives them on a thread of its own (signalfd(2)). The first signal calls `onInterrupt` at
/// once, and `onOverdue` if the watcher still exists after the returned timeout. A second signal
/// ends the process at once, with 128 plus its number.
class InterruptWatcher {
  public:
    struct Handlers {
        /// Returns the timeout.
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

/// A registered client whose request the first signal cancels.
class Session {
  public:
    /// The usual timeout of a cancelled request. The daemon stops before its next object; a single
    /// object can take longer.
    static constexpr std::chrono::milliseconds kCancelTimeout{2000};

    struct Options {
        /// See `InterruptWatcher::Handlers`.
        std::function<void()> onTick = {};
        /// Called on the watcher's thread before the request is cancelled.
        std::function<void()> onInterrupt = {};
        /// Time that the daemon has to answer how far it came.
        std::chrono::milliseconds cancelTimeout{0};
    };

    /// Connects to the socket that the arguments name, and registers; or returns the shared one.
    /// After a failure reports it, sets `exitCode` and returns null. The options apply until the
    /// result is released. Blocks.
    static std::shared_ptr<Session> open(const Arguments& arguments, Options options,
                                         int& exitCode);
    /// Unregisters the client.
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    [[nodiscard]] Client& client() noexcept { return *_client; }
    /// Whether further commands will use this session.
    [[nodiscard]] bool isShared() const noexcept;
    /// Ends the connection; a waiting `perform` returns. Any thread.
    void cancel() { _client->cancel(); }
    /// Returns the signal that cancelled the request, 0 for none. Any thread.
    [[nodiscard]] int interruptedBy() noexcept { return _watcher->interruptedBy(); }

  private:
    Session() = default;
    /// Blocks until no handler of the former options runs.
    void setOptions(Options options);
    std::chrono::milliseconds interrupt();
    void tick();
    static std::shared_ptr<Session> connect(const Arguments& arguments, Options options,
                                            int& exitCode);

    std::unique_ptr<Client> _client;
    std::mutex _mutex;  // guards `_options` while they change or run
    Options _options;
    std::unique_ptr<InterruptWatcher> _watcher;
};

/// While it exists, all commands of this program share one session. At most one may exist.
class SharedSession {
  public:
    /// Opens the session like `Session::open`.
    SharedSession(const Arguments& arguments, int& exitCode);
    ~SharedSession();
    SharedSession(const SharedSession&) = delete;
    SharedSession& operator=(const SharedSession&) = delete;

    /// Whether the session could be opened.
    [[nodiscard]] explicit operator bool() const noexcept;
};

/// Returns the socket that the arguments name, or the well-known one.
[[nodiscard]] std::string socketPathOf(const Arguments& arguments);

/// Runs `work` with a session; returns its exit code, or that of a failed or interrupted session.
int withSession(const Arguments& arguments, const std::function<int(Client&)>& work);

}  // namespace corvalen::cli
