// SPDX-License-Identifier: MIT
// Lets polkit ask for a password on this terminal.
#pragma once

#include <sys/types.h>

#include "cli/command.hpp"
#include "cli/denial.hpp"

namespace corvalen {
struct OperationInfo;
}

namespace corvalen::cli {

/// Whoever logs in on a console or from afar has no agent that polkit could ask through. While this
/// object lives, polkit's own text agent asks for this process, unless there is another agent. It
/// is there only where it can be of use: for an operation that not everybody may have, for users
/// other than root, on a terminal whose foreground is ours (pkttyagent(1) reads from /dev/tty), and
/// not with --no-ask-password. Without polkit it ends by itself and nothing is asked.
class PasswordAgent {
  public:
    /// Returns when polkit knows the agent.
    PasswordAgent(const OperationInfo& operation, const Arguments& arguments);
    /// Ends the agent, which gives the terminal back as it was.
    ~PasswordAgent();
    PasswordAgent(const PasswordAgent&) = delete;
    PasswordAgent& operator=(const PasswordAgent&) = delete;

    [[nodiscard]] bool isThere() const noexcept { return _process > 0; }
    /// Whether the session has a screen, on which another agent may ask first.
    [[nodiscard]] static bool isOnDesktop();
    [[nodiscard]] Asking asking() const noexcept { return _asking; }

  private:
    Asking _asking;
    pid_t _process = -1;
};

}  // namespace corvalen::cli
