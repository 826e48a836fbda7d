// SPDX-License-Identifier: MIT
#include "cli/interrupt_watcher.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "cli/command.hpp"

namespace corvalen::cli {
namespace {

constexpr std::chrono::milliseconds kTickInterval{100};

}  // namespace

InterruptWatcher::InterruptWatcher(Handlers handlers) : _handlers(std::move(handlers)) {
    ::sigemptyset(&_signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        ::sigaddset(&_signals, signal);
    ::pthread_sigmask(SIG_BLOCK, &_signals, &_maskBefore);
    _signalDescriptor.reset(::signalfd(-1, &_signals, SFD_CLOEXEC | SFD_NONBLOCK));
    _endDescriptor.reset(::eventfd(0, EFD_CLOEXEC));
    _thread = std::thread([this] { watch(); });
}

InterruptWatcher::~InterruptWatcher() {
    ::eventfd_write(_endDescriptor.get(), 1);
    _thread.join();
    ::pthread_sigmask(SIG_SETMASK, &_maskBefore, nullptr);
}

int InterruptWatcher::waitForSignal(std::chrono::milliseconds timeout) {
    pollfd polled[] = {{_endDescriptor.get(), POLLIN, 0}, {_signalDescriptor.get(), POLLIN, 0}};
    const int ready = ::poll(polled, 2, static_cast<int>(timeout.count()));
    if (ready < 0) return errno == EINTR ? 0 : -1;
    if (polled[0].revents != 0) return -1;
    return polled[1].revents != 0 ? takeSignal() : 0;
}

int InterruptWatcher::takeSignal() noexcept {
    const std::scoped_lock locked(_lock);
    signalfd_siginfo info{};
    if (::read(_signalDescriptor.get(), &info, sizeof info) != sizeof info) return 0;
    const int signal = static_cast<int>(info.ssi_signo);
    if (_firstSignal == 0) _firstSignal = signal;
    return signal;
}

int InterruptWatcher::interruptedBy() noexcept {
    (void)takeSignal();
    const std::scoped_lock locked(_lock);
    return _firstSignal;
}

void InterruptWatcher::watch() {
    while (true) {
        const int signal = waitForSignal(kTickInterval);
        if (signal < 0) return;
        if (signal > 0)
            interrupt(signal);
        else if (_handlers.onTick)
            _handlers.onTick();
    }
}

void InterruptWatcher::interrupt(int signal) {
    if (std::exchange(_isInterrupted, true)) ::_exit(kExitSignal + signal);
    const int next = waitForSignal(_handlers.onInterrupt());
    if (next > 0) ::_exit(kExitSignal + next);
    // After -1, `watch` sees the end descriptor again and returns.
    if (next == 0) _handlers.onOverdue();
}

}  // namespace corvalen::cli
