// SPDX-License-Identifier: MIT
#include "helper/process_setup.hpp"

#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <initializer_list>
#include <system_error>

#include "platform/processes/thread_capabilities.hpp"

namespace corvalen {
namespace {

constexpr mode_t kFileCreationMask = 022;
/// Bytes; larger blocks return to the kernel when they are freed.
constexpr int kLargestHeapBlock = 256 * 1024;

std::optional<rlimit> limitAtStart;
bool standardErrorClosedAtStart = false;

sigset_t terminationSignals() noexcept {
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int number : {SIGTERM, SIGINT, SIGHUP})
        ::sigaddset(&signals, number);
    return signals;
}

/// The next open(2) would reuse a closed standard descriptor, and output for standard error would
/// go there.
void fillStandardDescriptors() noexcept {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(fd, F_GETFD) >= 0 || errno != EBADF) continue;
        standardErrorClosedAtStart = standardErrorClosedAtStart || fd == STDERR_FILENO;
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
    // Inherited as ignored, SIGCHLD makes waitpid(2) fail.
    ::signal(SIGCHLD, SIG_DFL);
    const sigset_t signals = terminationSignals();
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    ::umask(kFileCreationMask);
    (void)!::chdir("/");
    raiseDescriptorLimit();
    // Otherwise the first large message raises the threshold, and later ones stay in the heap
    // (mallopt(3)).
    (void)::mallopt(M_MMAP_THRESHOLD, kLargestHeapBlock);
    (void)dropThreadCapabilities();
}

std::optional<rlimit> descriptorLimitAtStart() noexcept {
    return limitAtStart;
}

bool standardErrorWasClosed() noexcept {
    return standardErrorClosedAtStart;
}

TerminationWait::TerminationWait() {
    const sigset_t signals = terminationSignals();
    _signals.reset(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    _wakeUp.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!_signals || !_wakeUp) throw std::system_error(errno, std::generic_category());
}

bool TerminationWait::wait(std::optional<std::chrono::milliseconds> timeout) noexcept {
    std::array<pollfd, 2> entries{pollfd{_signals.get(), POLLIN, 0},
                                  pollfd{_wakeUp.get(), POLLIN, 0}};
    (void)::poll(entries.data(), entries.size(), timeout ? static_cast<int>(timeout->count()) : -1);
    std::uint64_t wakes = 0;
    (void)!::read(_wakeUp.get(), &wakes, sizeof wakes);
    signalfd_siginfo received{};
    return ::read(_signals.get(), &received, sizeof received) == sizeof received;
}

void TerminationWait::wake() noexcept {
    const std::uint64_t one = 1;
    // write(2) fails only if the counter is full, and then the wait ends anyway.
    (void)!::write(_wakeUp.get(), &one, sizeof one);
}

}  // namespace corvalen
