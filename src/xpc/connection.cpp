// SPDX-License-Identifier: MIT
#include "xpc/connection.hpp"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "xpc/connection_core.hpp"
#include "xpc/socket_io.hpp"

namespace corvalen {

namespace {

OpenedConnection wrap(std::unique_ptr<MessageStream> stream, PeerIdentity peer, QuotaCharge place,
                      std::shared_ptr<UserQuotas> quotas) {
    OpenedConnection opened;
    opened.channel = std::make_shared<Channel>(std::move(stream), std::move(peer), std::move(place),
                                               std::move(quotas));
    const auto core = std::make_shared<ConnectionCore>(opened.channel);
    opened.channel->setCore(core);
    opened.connection = std::make_shared<Connection>(core);
    core->connection = opened.connection;
    return opened;
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

OpenedConnection openConnection(UniqueFd&& socket, PeerIdentity peer,
                                std::shared_ptr<UserQuotas> quotas,
                                const ConnectionOptions& options) {
    QuotaCharge place(quotas, Resource::connections);
    if (!place.setAmount(1)) return {};
    auto stream =
        std::make_unique<MessageStream>(std::move(socket), quotas, options.arrivalTimeout);
    stream->setSendTimeout(options.sendTimeout);
    return wrap(std::move(stream), std::move(peer), std::move(place), std::move(quotas));
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
    return wrap(std::move(stream), PeerIdentity(), QuotaCharge(), nullptr).connection;
}

std::shared_ptr<Connection> Connection::adoptSocket(UniqueFd socket,
                                                    std::shared_ptr<UserQuotas> quotas) {
    PeerIdentity peer = peerIdentityOfSocket(socket.get());
    return openConnection(std::move(socket), std::move(peer), std::move(quotas)).connection;
}

Connection::Connection(std::shared_ptr<ConnectionCore> core) : _core(std::move(core)) {}
Connection::~Connection() = default;

void Connection::setExportedInterface(const Interface& interface,
                                      std::shared_ptr<ExportedObject> object) {
    _core->channel().setExported(interface, std::move(object));
}
void Connection::setInvalidationHandler(std::function<void()> handler) {
    _core->channel().setInvalidationHandler(std::move(handler));
}
void Connection::setSendTimeout(std::chrono::milliseconds timeout) {
    _core->channel().setSendTimeout(timeout);
}
void Connection::resume() {
    _core->channel().resume();
}
void Connection::suspend() {
    _core->channel().suspend();
}
void Connection::invalidate() {
    _core->channel().invalidate();
}
void Connection::shutDownSending() {
    _core->channel().shutDownSending();
}

RemoteObjectProxy Connection::remoteObjectProxy() {
    return {_core, nullptr};
}
RemoteObjectProxy Connection::remoteObjectProxyWithErrorHandler(ConnectionErrorHandler handler) {
    return {_core, std::move(handler)};
}

const PeerIdentity& Connection::peer() const noexcept {
    return _core->channel().peer();
}

const std::shared_ptr<UserQuotas>& Connection::quotas() const noexcept {
    return _core->channel().quotas();
}

Connection* Connection::current() noexcept {
    return currentConnection;
}

RemoteObjectProxy::RemoteObjectProxy(std::shared_ptr<ConnectionCore> core,
                                     ConnectionErrorHandler onError)
    : _core(std::move(core)), _onError(std::move(onError)) {}

void RemoteObjectProxy::notify(std::string_view selector, const Array& params) const {
    const ErrorRef error = _core->channel().notify(selector, params);
    if (error && _onError) _onError(error);
}

Value RemoteObjectProxy::call(std::string_view selector, const Array& params,
                              ErrorRef* error) const {
    ErrorRef failure;
    Value result = _core->channel().call(selector, params, failure);
    if (failure && _onError) _onError(failure);
    if (failure && error != nullptr) *error = failure;
    return result;
}

void RemoteObjectProxy::callWithReply(std::string_view selector, const Array& params,
                                      CallReply reply) const {
    _core->channel().callWithReply(
        selector, params,
        [reply = std::move(reply), onError = _onError](Value result, ErrorRef error) {
            if (error && onError) onError(error);
            reply(std::move(result), std::move(error));
        });
}

}  // namespace corvalen
