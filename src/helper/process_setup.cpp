// SPDX-License-Identifier: MIT
#include "helper/process_setup.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <initializer_list>

namespace corvalen {
namespace {

constexpr mode_t kFileCreationMask = 022;

std::optional<rlimit> limitAtStart;

sigset_t terminationSignals() noexcept {
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int number : {SIGTERM, SIGINT, SIGHUP})
        ::sigaddset(&signals, number);
    return signals;
}

/// A closed standard descriptor would become the number of the next thing opened, and what is meant
/// for standard error would be written there.
void fillStandardDescriptors() noexcept {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(fd, F_GETFD) < 0 && errno == EBADF)
            (void)::open("/dev/null", fd == STDIN_FILENO ? O_RDONLY : O_WRONLY);  // NOLINT
    }
}

void raiseDescriptorLimit() noexcept {
    rlimit raised{};
    if (::getrlimit(RLIMIT_NOFILE, &raised) != 0) return;
    limitAtStart = raised;
    raised.rlim_cur = raised.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &raised);
}

}  // namespace

void prepareProcess() noexcept {
    fillStandardDescriptors();
    ::signal(SIGPIPE, SIG_IGN);
    // Who started the helper may have ignored it, and then nobody could wait for a utility.
    ::signal(SIGCHLD, SIG_DFL);
    const sigset_t signals = terminationSignals();
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    ::umask(kFileCreationMask);
    (void)!::chdir("/");
    raiseDescriptorLimit();
}

std::optional<rlimit> descriptorLimitAtStart() noexcept {
    return limitAtStart;
}

int waitForTerminationSignal() noexcept {
    const sigset_t signals = terminationSignals();
    int number = 0;
    while (::sigwait(&signals, &number) != 0) {
    }
    return number;
}

}  // namespace corvalen
