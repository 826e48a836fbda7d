// SPDX-License-Identifier: MIT
// A command's time with the helper: connected, registered, interruptible.
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

class Session {
  public:
    struct Options {
        /// As `InterruptWatcher::Handlers`.
        std::function<void()> onTick = {};
        /// Called before the helper is told that nobody wants the operation any more.
        std::function<void()> onInterrupt = {};
        /// How long the helper is given to say how far it came.
        std::chrono::milliseconds patience{0};
    };

    /// Connects to the socket that the arguments name, and registers; or gives the kept session. On
    /// failure reports, sets `exitCode` and gives null. The options hold as long as the result.
    static std::shared_ptr<Session> open(const Arguments& arguments, Options options,
                                         int& exitCode);
    /// Unregisters.
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    [[nodiscard]] Client& client() noexcept { return *_client; }
    /// Whether other commands use this session afterwards.
    [[nodiscard]] bool isKept() const noexcept;
    /// Ends the operation that is under way; from any thread.
    void cancel() { _client->cancel(); }
    /// The signal by which the user took the request back, 0 for none.
    [[nodiscard]] int interruptedBy() noexcept { return _watcher->interruptedBy(); }

  private:
    Session() = default;
    /// Returns when no handler of the former options runs any more.
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

/// While it lives, every command of this program has the same session. One at a time.
class KeptSession {
  public:
    /// As `Session::open`.
    KeptSession(const Arguments& arguments, int& exitCode);
    ~KeptSession();
    KeptSession(const KeptSession&) = delete;
    KeptSession& operator=(const KeptSession&) = delete;

    [[nodiscard]] explicit operator bool() const noexcept;
};

/// The socket that the arguments name, or the well-known one.
[[nodiscard]] std::string socketPathOf(const Arguments& arguments);

/// Runs `work` with a session; gives its exit code, or that of a session that could not be had or
/// was interrupted.
int withSession(const Arguments& arguments, const std::function<int(Client&)>& work);

}  // namespace corvalen::cli
