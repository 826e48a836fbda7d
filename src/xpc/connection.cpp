// SPDX-License-Identifier: MIT
#include "xpc/connection.hpp"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "xpc/connection_state.hpp"
#include "xpc/socket_io.hpp"

namespace corvalen {

namespace {

std::shared_ptr<Connection> makeHandle(std::shared_ptr<ConnectionState> state) {
    auto handle = std::make_shared<Connection>(std::move(state));
    handle->state().setHandle(handle);
    return handle;
}

int connectSocket(int socket, std::string_view path) {
    sockaddr_un address{};
    if (path.size() >= sizeof address.sun_path) return ENAMETOOLONG;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    for (;;) {
        if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
            return 0;
        }
        if (errno != EINTR) return errno;
    }
}

}  // namespace

std::shared_ptr<Connection> openConnection(UniqueFd&& socket, PeerIdentity peer,
                                           std::shared_ptr<UserQuotas> quotas,
                                           const ConnectionOptions& options) {
    QuotaCharge charge(quotas, Resource::connections);
    if (!charge.setAmount(1)) return nullptr;
    auto stream =
        std::make_unique<MessageStream>(std::move(socket), quotas, options.arrivalTimeout);
    stream->setSendTimeout(options.sendTimeout);
    return makeHandle(std::make_shared<ConnectionState>(std::move(stream), std::move(peer),
                                                        std::move(charge), std::move(quotas)));
}

std::shared_ptr<Connection> Connection::connectionToServiceAtPath(std::string_view path,
                                                                  ErrorRef* error) {
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int failure = socket ? connectSocket(socket.get(), path) : errno;
    if (failure != 0) {
        fail(error, makeConnectionInvalidError(failure));
        return nullptr;
    }
    return adoptSocket(std::move(socket), nullptr);
}

std::shared_ptr<Connection> Connection::connectionToEndpoint(const EndpointRef& endpoint) {
    SocketPair pair = makeSocketPair(SOCK_STREAM);
    auto stream = std::make_unique<MessageStream>(std::move(pair.first), endpoint,
                                                  std::move(pair.second), wire::kArrivalTimeout);
    return makeHandle(std::make_shared<ConnectionState>(std::move(stream), PeerIdentity(),
                                                        QuotaCharge(), nullptr));
}

std::shared_ptr<Connection> Connection::adoptSocket(UniqueFd socket,
                                                    std::shared_ptr<UserQuotas> quotas) {
    PeerIdentity peer = peerIdentityOfSocket(socket.get());
    return openConnection(std::move(socket), std::move(peer), std::move(quotas));
}

Connection::Connection(std::shared_ptr<ConnectionState> state) : _state(std::move(state)) {}

Connection::~Connection() {
    _state->invalidate();
}

void Connection::setExportedInterface(const Interface& interface,
                                      std::shared_ptr<ExportedObject> object) {
    _state->setExported(interface, std::move(object));
}
void Connection::setInvalidationHandler(std::function<void()> handler) {
    _state->setInvalidationHandler(std::move(handler));
}
void Connection::setSendTimeout(std::chrono::milliseconds timeout) {
    _state->setSendTimeout(timeout);
}
void Connection::resume() {
    _state->resume();
}
void Connection::suspend() {
    _state->suspend();
}
void Connection::invalidate() {
    _state->invalidate();
}
void Connection::shutDownSending() {
    _state->shutDownSending();
}

RemoteObjectProxy Connection::remoteObjectProxy() {
    return {shared_from_this(), nullptr};
}
RemoteObjectProxy Connection::remoteObjectProxyWithErrorHandler(ConnectionErrorHandler handler) {
    return {shared_from_this(), std::move(handler)};
}

const PeerIdentity& Connection::peer() const noexcept {
    return _state->peer();
}

const std::shared_ptr<UserQuotas>& Connection::quotas() const noexcept {
    return _state->quotas();
}

RemoteObjectProxy::RemoteObjectProxy(std::shared_ptr<Connection> connection,
                                     ConnectionErrorHandler onError)
    : _connection(std::move(connection)), _onError(std::move(onError)) {}

void RemoteObjectProxy::notify(std::string_view selector, const Array& params) const {
    const ErrorRef error = _connection->state().notify(selector, params);
    if (error && _onError) _onError(error);
}

Value RemoteObjectProxy::call(std::string_view selector, const Array& params,
                              ErrorRef* error) const {
    ErrorRef failure;
    Value result = _connection->state().call(selector, params, failure);
    if (failure && _onError) _onError(failure);
    if (failure && error != nullptr) *error = failure;
    return result;
}

void RemoteObjectProxy::callWithReply(std::string_view selector, const Array& params,
                                      CallReply reply) const {
    _connection->state().callWithReply(
        selector, params,
        [reply = std::move(reply), onError = _onError](Value result, ErrorRef error) {
            if (error && onError) onError(error);
            reply(std::move(result), std::move(error));
        });
}

}  // namespace corvalen
