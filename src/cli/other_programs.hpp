// SPDX-License-Identifier: MIT
// Other programs that corvalenctl runs: the pager, the password agent, and ssh.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

#include "cli/command.hpp"
#include "cli/report.hpp"

namespace corvalen {
struct OperationInfo;
}

namespace corvalen::cli {

/// Writes a text to standard output; returns the exit code. On a terminal with fewer lines than the
/// text, $PAGER or else less(1) shows it, unless --no-pager or --json was given or the pager is
/// missing. Under sudo, doas and pkexec the pager is always less in its secure mode, which starts
/// no other programs. Blocks until the pager ends.
int writePaged(std::string_view text, const Arguments& arguments);
/// Whether another thread is in writePaged() and its pager runs, which Ctrl-C is meant for.
[[nodiscard]] bool isPagerRunning() noexcept;

/// Runs pkttyagent(1) for this process, since a login on a console or by ssh has no agent through
/// which polkit could ask. Starts it only for operations that not everybody may perform, for users
/// other than root, in the foreground of a terminal, and without --no-ask-password. Without polkit
/// the agent ends by itself. An agent of the session takes precedence.
class PasswordAgent {
  public:
    /// Blocks until polkit has registered the agent, at most 10 seconds.
    PasswordAgent(const OperationInfo& operation, const Arguments& arguments);
    /// Ends the agent, which restores the terminal.
    ~PasswordAgent();
    PasswordAgent(const PasswordAgent&) = delete;
    PasswordAgent& operator=(const PasswordAgent&) = delete;

    /// Whether the agent was started.
    [[nodiscard]] bool isRunning() const noexcept { return _process > 0; }
    /// Whether the session is graphical, so that its own agent may prompt.
    [[nodiscard]] static bool isOnDesktop();
    [[nodiscard]] PasswordPrompt prompt() const noexcept { return _prompt; }

  private:
    PasswordPrompt _prompt;
    pid_t _process = -1;
};

/// The host of -H or --remote, empty without one, and the other words.
struct RemoteRequest {
    std::string host;
    std::vector<std::string> words;
    /// Whether --json was given.
    bool wantsJson = false;
};

/// Takes the host out of the words. Ignores words after "--" and after the name of a command that
/// passes words on. Throws UsageError for a missing host, and for one that ssh would read as an
/// option.
[[nodiscard]] RemoteRequest takeHost(const std::vector<std::string>& words);

/// Runs corvalenctl with these words on the host by ssh(1); returns its exit code, and 3 if the
/// host cannot be reached. The remote side gets a terminal if all standard streams are one here.
/// Blocks.
int runRemotely(const RemoteRequest& request);

}  // namespace corvalen::cli
