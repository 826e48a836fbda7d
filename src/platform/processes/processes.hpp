// SPDX-License-Identifier: MIT
// Processes of the machine, of any user.
#pragma once

#include <sys/types.h>

#include <memory>

#include "foundation/result.hpp"

namespace corvalen {

/// Stateless; any thread may call.
class Processes {
  public:
    virtual ~Processes() = default;

    /// Sends one process SIGTERM. ESRCH if it does not exist, EINVAL below 1, which kill(2) takes
    /// for a process group or for all processes.
    [[nodiscard]] virtual Result<> terminate(pid_t processIdentifier) = 0;
};

[[nodiscard]] std::unique_ptr<Processes> makeProcesses();

}  // namespace corvalen
