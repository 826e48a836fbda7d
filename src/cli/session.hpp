// SPDX-License-Identifier: MIT
// A command's time with the helper: connected, registered, interruptible.
#pragma once

#include <chrono>
#include <corvalen/client.hpp>
#include <functional>
#include <memory>
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

    /// Connects to the socket that the arguments name, and registers. On failure reports, sets
    /// `exitCode` and gives null.
    static std::unique_ptr<Session> open(const Arguments& arguments, Options options,
                                         int& exitCode);
    /// Unregisters.
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    [[nodiscard]] Client& client() noexcept { return *_client; }
    /// Ends the operation that is under way; from any thread.
    void cancel() { _client->cancel(); }
    /// The signal by which the user took the request back, 0 for none.
    [[nodiscard]] int interruptedBy() noexcept { return _watcher->interruptedBy(); }

  private:
    Session() = default;

    std::unique_ptr<Client> _client;
    std::unique_ptr<InterruptWatcher> _watcher;
};

/// The socket that the arguments name, or the well-known one.
[[nodiscard]] std::string socketPathOf(const Arguments& arguments);

/// Runs `work` with a session; gives its exit code, or that of a session that could not be had or
/// was interrupted.
int withSession(const Arguments& arguments, const std::function<int(Client&)>& work);

}  // namespace corvalen::cli
