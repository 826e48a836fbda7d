// SPDX-License-Identifier: MIT
#include "cli/session.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "cli/command.hpp"
#include "cli/other_programs.hpp"
#include "cli/report.hpp"
#include "operations/names.hpp"

namespace corvalen::cli {
namespace {

constexpr std::chrono::milliseconds kTickInterval{100};

/// The session of a living `SharedSession`.
std::shared_ptr<Session> sharedSession;

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
    if (signal == SIGINT && isPagerRunning()) return 0;
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

std::string socketPathOf(const Arguments& arguments) {
    return arguments.has("socket") ? arguments.path("socket") : std::string(kServiceSocketPath);
}

std::shared_ptr<Session> Session::open(const Arguments& arguments, Options options, int& exitCode) {
    if (!sharedSession) return connect(arguments, std::move(options), exitCode);
    sharedSession->setOptions(std::move(options));
    return {sharedSession.get(), [shared = sharedSession](Session*) { shared->setOptions({}); }};
}

std::shared_ptr<Session> Session::connect(const Arguments& arguments, Options options,
                                          int& exitCode) {
    const std::string socketPath = socketPathOf(arguments);
    ErrorRef error;
    std::shared_ptr<Session> session(new Session);
    session->_options = std::move(options);
    session->_client = Client::connect(socketPath, &error);
    if (session->_client) {
        // Blocks the signals before the client starts threads, which would receive them.
        session->_watcher = std::make_unique<InterruptWatcher>(InterruptWatcher::Handlers{
            .onInterrupt = [raw = session.get()] { return raw->interrupt(); },
            .onOverdue = [raw = session.get()] { raw->cancel(); },
            .onTick = [raw = session.get()] { raw->tick(); }});
        if (session->_client->registerClient(0, &error)) return session;
        if (session->interruptedBy() != 0) return session;
    }
    exitCode = reportNoSession(socketPath, error);
    return nullptr;
}

void Session::setOptions(Options options) {
    const std::lock_guard lock(_mutex);
    _options = std::move(options);
}

std::chrono::milliseconds Session::interrupt() {
    const std::lock_guard lock(_mutex);
    if (_options.onInterrupt) _options.onInterrupt();
    _client->stop();
    return _options.cancelTimeout;
}

bool Session::isShared() const noexcept {
    return sharedSession.get() == this;
}

void Session::tick() {
    const std::lock_guard lock(_mutex);
    if (_options.onTick) _options.onTick();
}

SharedSession::SharedSession(const Arguments& arguments, int& exitCode) {
    sharedSession = Session::open(arguments, {}, exitCode);
}

SharedSession::~SharedSession() {
    sharedSession.reset();
}

SharedSession::operator bool() const noexcept {
    return sharedSession != nullptr;
}

Session::~Session() {
    // The watcher's handler uses the client.
    _watcher.reset();
    _client.reset();
}

int withSession(const Arguments& arguments, const std::function<int(Client&)>& work) {
    int code = kExitSuccess;
    const auto session = Session::open(arguments, {}, code);
    if (!session) return code;
    if (session->interruptedBy() == 0) code = work(session->client());
    const int signal = session->interruptedBy();
    return signal != 0 ? kExitSignal + signal : code;
}

}  // namespace corvalen::cli
