// SPDX-License-Identifier: MIT
#include "cli/session.hpp"

#include "cli/report.hpp"
#include "operations/names.hpp"

namespace corvalen::cli {

std::string socketPathOf(const Arguments& arguments) {
    return arguments.has("socket") ? arguments.path("socket") : std::string(kServiceSocketPath);
}

std::unique_ptr<Session> Session::open(const Arguments& arguments, Options options, int& exitCode) {
    const std::string socketPath = socketPathOf(arguments);
    ErrorRef error;
    std::unique_ptr<Session> session(new Session);
    session->_client = Client::connect(socketPath, &error);
    if (session->_client) {
        // Before the client starts a thread that would receive the signals.
        session->_watcher = std::make_unique<InterruptWatcher>(InterruptWatcher::Handlers{
            [client = session->_client.get(), notify = std::move(options.onInterrupt)] {
                if (notify) notify();
                client->stop();
            },
            [client = session->_client.get()] { client->cancel(); }, std::move(options.onTick),
            options.patience});
        if (session->_client->registerClient(0, &error)) return session;
        if (session->interruptedBy() != 0) return session;
    }
    exitCode = reportNoSession(socketPath, error);
    return nullptr;
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
