// SPDX-License-Identifier: MIT
// A helper inside the test: the real protocol, with operations that the test supplies.
#pragma once

#include <sys/socket.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "operations/names.hpp"
#include "support/eventually.hpp"
#include "support/scratch_folder.hpp"
#include "support/unix_socket.hpp"
#include "xpc/connection.hpp"
#include "xpc/listener.hpp"

namespace corvalen::test {

/// Does nothing if the client gave no endpoint. A copy keeps the feedback connection open.
using SendFeedback = std::function<void(Dictionary)>;
/// Returns the reply.
using PerformOperation =
    std::function<Value(std::uint64_t code, const Array& arguments, const SendFeedback& send)>;

inline Value success() {
    return Value(makePosixError(0));
}

class FakeHelper : public ListenerDelegate {
  public:
    explicit FakeHelper(PerformOperation perform)
        : _object(std::make_shared<Object>(std::move(perform))) {
        UniqueFd socket = boundSocket(path(), SOCK_STREAM);
        if (::listen(socket.get(), 64) != 0) std::abort();
        _listener = Listener::listenerAtSocket(std::move(socket));
        _listener->setDelegate(this);
        _listener->resume();
    }
    ~FakeHelper() override { stop(); }

    [[nodiscard]] std::string path() const { return _folder.path("socket"); }
    [[nodiscard]] std::vector<std::string> log() const {
        const std::lock_guard lock(_object->mutex);
        return _object->log;
    }
    [[nodiscard]] std::string waitForLog(std::size_t lines) const {
        (void)eventually([&] { return log().size() >= lines; });
        std::string all;
        for (const std::string& line : log())
            all += line + "\n";
        return all;
    }
    /// The authorization data of each request.
    [[nodiscard]] std::vector<Data> authorizations() const {
        const std::lock_guard lock(_object->mutex);
        return _object->authorizations;
    }
    /// Ends the connections of the next `count` registrations, as a daemon that is ending does.
    void cutConnections(int count) { _object->cuts = count; }
    /// From now on every registration is refused.
    void refuseRegistrations() { _object->refuses = true; }
    /// Sets the version that clients read. Call it before a client connects.
    void setVersion(std::string version) { _object->version = std::move(version); }

    /// Ends the listener and all connections, as a daemon that dies does.
    void stop() {
        _listener->invalidate();
        for (const auto& connection : _object->takeConnections())
            connection->invalidate();
    }

  private:
    struct Object : ExportedObject {
        explicit Object(PerformOperation operation) : perform(std::move(operation)) {}

        CallResult handleMessage(Connection& connection, std::string_view name,
                                 Array params) override {
            if (name == selector::kGetVersionString) return {Value(version), {}};
            if (name == selector::kEnableDebugMode) return note("debug", params);
            if (name == selector::kRegisterClient) {
                if (refuses) return CallResult::refused("too many clients");
                if (cuts > 0 && cuts-- > 0) {
                    connection.invalidate();
                    return {};
                }
                return note("register", params);
            }
            if (name == selector::kUnregisterClient) return note("unregister", params);
            if (name == selector::kPerformPrivilegedOperation) return performRequest(params);
            return CallResult::refused("unknown");
        }

        CallResult note(const std::string& what, const Array& params) {
            const std::lock_guard lock(mutex);
            log.push_back(what + " " + params.at(0).number()->stringValue());
            return {};
        }

        CallResult performRequest(const Array& params) {
            {
                const std::lock_guard lock(mutex);
                authorizations.push_back(*params.at(1).data());
            }
            const EndpointRef* endpoint = params.at(2).endpoint();
            // Ends with the last copy of `send`.
            const auto feedback =
                endpoint != nullptr ? Connection::connectionToEndpoint(*endpoint) : nullptr;
            const SendFeedback send = [feedback](Dictionary message) {
                if (feedback)
                    feedback->remoteObjectProxy().notify(selector::kProcessFeedback,
                                                         {Value(std::move(message))});
            };
            const std::uint64_t code = params.at(0).number()->unsignedIntegerValue();
            return {perform(code, *params.at(3).array(), send), {}};
        }

        std::vector<std::shared_ptr<Connection>> takeConnections() {
            const std::lock_guard lock(mutex);
            return std::exchange(connections, {});
        }

        const PerformOperation perform;
        std::mutex mutex;
        std::vector<std::string> log;
        std::vector<Data> authorizations;
        std::vector<std::shared_ptr<Connection>> connections;
        std::string version = "1.4";
        std::atomic<bool> refuses = false;
        std::atomic<int> cuts = 0;
    };

    static constexpr InterfaceMethod kMethods[] = {
        {selector::kConnectWithEndpoint, true}, {selector::kGetVersionString, true},
        {selector::kEnableDebugMode, false},    {selector::kRegisterClient, false},
        {selector::kUnregisterClient, false},   {selector::kPerformPrivilegedOperation, true}};
    static constexpr Interface kInterface{"QRLPrivilegedHelperProtocol", kMethods};

    bool listenerShouldAcceptNewConnection(Listener& /*listener*/,
                                           const std::shared_ptr<Connection>& connection) override {
        const std::lock_guard lock(_object->mutex);
        _object->connections.push_back(connection);
        connection->setExportedInterface(kInterface, _object);
        connection->resume();
        return true;
    }

    const ScratchFolder _folder;
    const std::shared_ptr<Object> _object;
    std::unique_ptr<Listener> _listener;
};

inline Dictionary finalMessage() {
    return {{std::string(kQRLPORK_FinalFeedbackMessage), Value(true)}};
}

}  // namespace corvalen::test
