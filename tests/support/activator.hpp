// SPDX-License-Identifier: MIT
// Starts a program by socket activation, again and again, as a service manager does.
#pragma once

#include <sys/types.h>

#include <string>

#include "support/eventually.hpp"

namespace corvalen::test {

/// Gives the calling thread and those that it starts mounts of their own, with an empty /run and an
/// empty /var/lib. False when that is not allowed.
bool enterPrivateMounts();

/// Binds a socket once and starts `program` whenever somebody connects and it does not run. What
/// the program writes to standard error goes to `logFile`. To be made before the test has other
/// threads; its process ends with this object or with the test.
class Activator {
  public:
    Activator(const std::string& program, const std::string& socketPath,
              const std::string& socketName, const std::string& logFile);
    ~Activator();
    Activator(const Activator&) = delete;
    Activator& operator=(const Activator&) = delete;

    /// How often the program was started, how often it ended, and with what (waitpid(2)) the last
    /// time; the process of the last start.
    [[nodiscard]] int starts() const noexcept;
    [[nodiscard]] int ends() const noexcept;
    [[nodiscard]] int lastStatus() const noexcept;
    [[nodiscard]] pid_t lastProcess() const noexcept;

  private:
    struct Shared;
    Shared* _shared;
    pid_t _process;
};

}  // namespace corvalen::test
