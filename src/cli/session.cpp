// SPDX-License-Identifier: MIT
#include "cli/session.hpp"

#include <utility>

#include "cli/report.hpp"
#include "operations/names.hpp"

namespace corvalen::cli {
namespace {

/// The session of a living `KeptSession`.
std::shared_ptr<Session> keptSession;

}  // namespace

std::string socketPathOf(const Arguments& arguments) {
    return arguments.has("socket") ? arguments.path("socket") : std::string(kServiceSocketPath);
}

std::shared_ptr<Session> Session::open(const Arguments& arguments, Options options, int& exitCode) {
    if (!keptSession) return connect(arguments, std::move(options), exitCode);
    keptSession->setOptions(std::move(options));
    return {keptSession.get(), [kept = keptSession](Session*) { kept->setOptions({}); }};
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
    return _options.patience;
}

bool Session::isKept() const noexcept {
    return keptSession.get() == this;
}

void Session::tick() {
    const std::lock_guard lock(_mutex);
    if (_options.onTick) _options.onTick();
}

KeptSession::KeptSession(const Arguments& arguments, int& exitCode) {
    keptSession = Session::open(arguments, {}, exitCode);
}

KeptSession::~KeptSession() {
    keptSession.reset();
}

KeptSession::operator bool() const noexcept {
    return keptSession != nullptr;
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
