// SPDX-License-Identifier: MIT
// A connection to the daemon, registered and interruptible.
#pragma once

#include <chrono>
#include <corvalen/client.hpp>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "cli/command.hpp"
#include "cli/interrupt_watcher.hpp"

namespace corvalen::cli {

/// A registered client whose request the first signal cancels.
class Session {
  public:
    struct Options {
        /// See `InterruptWatcher::Handlers`.
        std::function<void()> onTick = {};
        /// Called on the watcher's thread before the request is cancelled.
        std::function<void()> onInterrupt = {};
        /// Time that the daemon has to answer how far it came.
        std::chrono::milliseconds patience{0};
    };

    /// Connects to the socket that the arguments name, and registers; or returns the kept session.
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
    [[nodiscard]] bool isKept() const noexcept;
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
class KeptSession {
  public:
    /// Opens the session like `Session::open`.
    KeptSession(const Arguments& arguments, int& exitCode);
    ~KeptSession();
    KeptSession(const KeptSession&) = delete;
    KeptSession& operator=(const KeptSession&) = delete;

    /// Whether the session could be opened.
    [[nodiscard]] explicit operator bool() const noexcept;
};

/// Returns the socket that the arguments name, or the well-known one.
[[nodiscard]] std::string socketPathOf(const Arguments& arguments);

/// Runs `work` with a session; returns its exit code, or that of a failed or interrupted session.
int withSession(const Arguments& arguments, const std::function<int(Client&)>& work);

}  // namespace corvalen::cli
