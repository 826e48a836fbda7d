// SPDX-License-Identifier: MIT
#include "helper/service.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <system_error>
#include <thread>
#include <utility>

#include "helper/helper_log.hpp"
#include "platform/processes/processes.hpp"

namespace corvalen {
namespace {

// SIGTERM must end the process within a second.
constexpr std::chrono::milliseconds kOperationsTimeout{800};
constexpr std::chrono::milliseconds kRepliesTimeout{100};
constexpr std::chrono::milliseconds kPollInterval{2};
// Interval at which a requested end checks for running requests.
constexpr std::chrono::milliseconds kEndInterval{5};
constexpr std::chrono::milliseconds kLeftOutInterval{1000};

/// Waits until `condition` holds, at most `timeout`.
template <class Condition>
void waitUntil(const Condition& condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(kPollInterval);
}

}  // namespace

sigset_t terminationSignals() noexcept {
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int number : {SIGTERM, SIGINT, SIGHUP})
        ::sigaddset(&signals, number);
    return signals;
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

HelperService::HelperService(UniqueFd socket, std::string ownSocketPath, Parts parts)
    : _parts(parts),
      _ownSocketPath(std::move(ownSocketPath)),
      _listener(Listener::listenerAtSocket(std::move(socket), _quotas)) {
    _parts.log.setLeftOutHandler([this] { _wait.wake(); });
}

void HelperService::run() {
    _listener->resume();
    notifyServiceManager("READY=1");
    std::optional<std::chrono::milliseconds> untilNextCheck;
    while (!_wait.wait(untilNextCheck))
        untilNextCheck = handleWakeUp();
    notifyServiceManager("STOPPING=1");
    _listener->suspend();
    removeOwnSocket();
    letOperationsFinish();
    _listener->invalidate();
}

/// The main thread's work after a wake-up. Returns the time until the next one; std::nullopt if
/// none is needed.
std::optional<std::chrono::milliseconds> HelperService::handleWakeUp() {
    endIfIdle();
    const bool allReported = _parts.log.reportLeftOutLines(_quotas->accounts(), quotaSecond());
    if (_endRequested) return kEndInterval;
    if (!allReported) return kLeftOutInterval;
    return std::nullopt;
}

void HelperService::letOperationsFinish() {
    _parts.requests.cancelAll();
    waitUntil([this] { return !_parts.requests.isPerforming(); }, kOperationsTimeout);
    waitUntil([this] { return !_listener->hasBusyConnection(); }, kRepliesTimeout);
}

void HelperService::endWhenIdle() {
    _endRequested = true;
    endIfIdle();
    if (_endRequested) _wait.wake();
}

/// Ends the process if its end is requested, no client is registered and no request is running. The
/// checks also stop new requests from beginning, so none is cut off.
void HelperService::endIfIdle() {
    if (!_endRequested.exchange(false)) return;
    _parts.clients.ifEmpty([this] {
        const bool isIdle = _listener->suspendIfIdle(
            Connection::current(), [this] { return _parts.requests.closeIfNone(); });
        if (isIdle) terminate();
        _endRequested = true;
    });
}

void HelperService::terminate() {
    try {
        const LogQuotaScope unlimited(nullptr);
        _parts.log.reportLeftOutLines(_quotas->accounts(), quotaSecond() + 1);
        _parts.log.debug("Terminating privileged helper.", kHelperEndedId);
    } catch (...) {  // NOLINT(bugprone-empty-catch): no memory for a line; the end must come
    }
    notifyServiceManager("STOPPING=1");
    removeOwnSocket();
    // Not exit(3): it would destroy static objects that other threads still use. No line is lost,
    // since the log is written line by line. No socket is closed before: the kernel does not let
    // the sockets of an exiting process linger.
    ::_exit(0);
}

void HelperService::removeOwnSocket() noexcept {
    if (!_ownSocketPath.empty()) ::unlink(_ownSocketPath.c_str());
}

}  // namespace corvalen
