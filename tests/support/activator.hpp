// SPDX-License-Identifier: MIT
// Starts a program by socket activation whenever a client connects, as a service manager does.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <stdexcept>
#include <string>

#include "support/eventually.hpp"

namespace corvalen::test {

/// Gives the calling thread, and threads that it starts, a private mount namespace with an empty
/// /run and /var/lib. Returns false without permission.
bool enterPrivateMounts();

/// Binds a socket and starts `program` when a client connects and the program does not run. The
/// standard error of the program goes to `logFile`. Construct it before the test has other threads.
/// Its process ends with this object or with the test.
class Activator {
  public:
    Activator(const std::string& program, const std::string& socketPath,
              const std::string& socketName, const std::string& logFile);
    ~Activator();
    Activator(const Activator&) = delete;
    Activator& operator=(const Activator&) = delete;

    /// The numbers of starts and ends, the last status (waitpid(2)), and the last process.
    [[nodiscard]] int starts() const noexcept { return _shared->starts; }
    [[nodiscard]] int ends() const noexcept { return _shared->ends; }
    [[nodiscard]] int lastStatus() const noexcept { return _shared->lastStatus; }
    /// Waits for the first start, which follows the first connection. Throws if none comes.
    [[nodiscard]] pid_t lastProcess() const {
        if (!eventually([this] { return _shared->lastProcess != 0; }))
            throw std::runtime_error("no program was started");
        return _shared->lastProcess;
    }

  private:
    struct Shared {
        std::atomic<int> starts{0}, ends{0}, lastStatus{0};
        std::atomic<pid_t> lastProcess{0};
    };
    Shared* _shared;
    pid_t _process;
};

}  // namespace corvalen::test
