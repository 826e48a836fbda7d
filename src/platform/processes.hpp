// SPDX-License-Identifier: MIT
// Processes of the machine, whoever owns them.
#pragma once

#include <sys/types.h>

#include <memory>

namespace corvalen {

/// Holds nothing; any thread may call.
class Processes {
  public:
    virtual ~Processes() = default;

    /// Asks one process to quit (SIGTERM). 0, or the errno: ESRCH when there is none, EINVAL below
    /// 1, since kill(2) would read such a number as a group or as everybody.
    [[nodiscard]] virtual int terminate(pid_t processIdentifier) = 0;
};

[[nodiscard]] std::unique_ptr<Processes> makeProcesses();

}  // namespace corvalen
