// SPDX-License-Identifier: MIT
#pragma once

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <utility>

namespace corvalen::test {

/// A child process of the test; the destructor kills it.
class Child {
  public:
    /// Exits with 0 if it became that user and `work` returned true.
    Child(uid_t user, const std::function<bool()>& work) : _pid(::fork()) {
        if (_pid != 0) return;
        const bool isUser =
            ::setresgid(user, user, user) == 0 && ::setresuid(user, user, user) == 0;
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // setuid(2) clears it
        ::_exit(isUser && work() ? 0 : 1);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() { end(); }

    [[nodiscard]] pid_t pid() const noexcept { return _pid; }
    /// Returns its status as waitpid(2) does.
    int wait() {
        int status = -1;
        ::waitpid(std::exchange(_pid, -1), &status, 0);
        return status;
    }
    int end(int signal = SIGKILL) {
        if (_pid <= 0) return -1;
        ::kill(_pid, signal);
        return wait();
    }

  private:
    pid_t _pid;
};

}  // namespace corvalen::test
