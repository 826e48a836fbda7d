// SPDX-License-Identifier: MIT
// A polkit agent that asks for a password on this terminal.
#pragma once

#include <sys/types.h>

#include "cli/command.hpp"
#include "cli/report.hpp"

namespace corvalen {
struct OperationInfo;
}

namespace corvalen::cli {

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

}  // namespace corvalen::cli
