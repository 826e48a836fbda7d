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

Result<> connectSocket(Descriptor socket, std::string_view path) {
    sockaddr_un address{};
    if (path.size() >= sizeof address.sun_path) return failure(ENAMETOOLONG);
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    for (;;) {
        const Result<> connected = resultOf(
            ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
        if (!failedWith(connected, EINTR)) return connected;
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

Result<std::shared_ptr<Connection>, ErrorRef> Connection::connectionToServiceAtPath(
    std::string_view path) {
    Result<UniqueFd> socket = openedBy(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const Result<> connected = socket ? connectSocket(*socket, path) : failure(socket.error());
    if (!connected) return failure(makeConnectionInvalidError(connected.error().number));
    return adoptSocket(*std::move(socket), nullptr);
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
    PeerIdentity peer = peerIdentityOfSocket(socket);
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

void RemoteObjectProxy::notifyLater(std::string_view selector, const Array& params) const {
    const ErrorRef error = _connection->state().notifyLater(selector, params);
    if (error && _onError) _onError(error);
}

void RemoteObjectProxy::flush() const {
    const ErrorRef error = _connection->state().flush();
    if (error && _onError) _onError(error);
}

CallOutcome RemoteObjectProxy::call(std::string_view selector, const Array& params) const {
    CallOutcome outcome = _connection->state().call(selector, params);
    if (!outcome && _onError) _onError(outcome.error());
    return outcome;
}

void RemoteObjectProxy::callWithReply(std::string_view selector, const Array& params,
                                      CallReply reply) const {
    _connection->state().callWithReply(
        selector, params, [reply = std::move(reply), onError = _onError](CallOutcome outcome) {
            if (!outcome && onError) onError(outcome.error());
            reply(std::move(outcome));
        });
}

namespace {

constexpr std::string_view kUnknownMethod = "unknown method";
constexpr std::string_view kUnsendableResult = "the result cannot be sent";

/// The connection whose message the calling thread handles; null between messages.
thread_local Connection* currentConnection = nullptr;

/// Sets `currentConnection` for its lifetime.
class CurrentConnection {
  public:
    explicit CurrentConnection(Connection* connection) noexcept
        : _outer(std::exchange(currentConnection, connection)) {}
    ~CurrentConnection() { currentConnection = _outer; }
    CurrentConnection(const CurrentConnection&) = delete;
    CurrentConnection& operator=(const CurrentConnection&) = delete;

  private:
    Connection* _outer;
};

}  // namespace

Connection* Connection::current() noexcept {
    return currentConnection;
}

ErrorRef makeConnectionInvalidError(int errnoValue) {
    std::optional<Dictionary> userInfo;
    if (errnoValue != 0) {
        userInfo = Dictionary{{std::string(kUnderlyingErrorKey), makePosixError(errnoValue)}};
    }
    return makeError(kCocoaErrorDomain, cocoa::kConnectionInvalid, std::move(userInfo));
}

void ConnectionState::handle(Lock& lock, Work work) {
    std::visit([&](auto& each) { handle(lock, std::move(each)); }, work);
}

void ConnectionState::handle(Lock& lock, Message message) {
    const InterfaceMethod* method = _interface.find(message.method);
    // Set before `resume`; released by this thread when the connection finishes.
    ExportedObject* const object = _object.get();
    withoutLock(lock, [&] { handleMessage(std::move(message), method, object); });
}

void ConnectionState::handle(Lock& lock, Delivery delivery) {
    withoutLock(lock, [&] {
        // Released without the lock: the callback may own the last reference to the connection.
        const CallReply callback = std::move(delivery.callback);
        callback(std::move(delivery.outcome));
    });
}

template <class Handler>
void ConnectionState::withoutLock(Lock& lock, const Handler& handler) {
    lock.unlock();
    try {
        handler();
    } catch (...) {
        // The handler left its message half done: end this connection only.
        invalidate();
    }
    lock.lock();
}

void ConnectionState::handleMessage(Message message, const InterfaceMethod* method,
                                    ExportedObject* object) {
    const std::shared_ptr<Connection> connection = _handle.lock();
    if (!connection) return;
    const bool isRequest = message.type == MessageType::request;
    CallResult result;
    if (method == nullptr || object == nullptr) {
        if (!isRequest) return;
        result = CallResult::refused(std::string(kUnknownMethod));
    } else if (!isRequest && method->hasReply) {
        // A notification has no reply to carry the result.
        return;
    } else {
        const CurrentConnection current(connection.get());
        result = object->handleMessage(*connection, method->selector, std::move(message.params));
        if (!method->hasReply) result.result = Value();
    }
    if (isRequest) sendReply(message.identifier, result);
}

void ConnectionState::sendReply(std::uint32_t identifier, const CallResult& result) {
    const auto refuse = [&](std::string_view why) {
        (void)send([&](EncodedMessage& out) { return encodeRefusal(identifier, why, out); });
    };
    if (!result.callError.empty()) return refuse(result.callError);
    const auto sent = _stream->send(
        [&](EncodedMessage& out) { return encodeResult(identifier, result.result, out); });
    if (sent) return;
    if (sent.error().status == SendStatus::refused) refuse(kUnsendableResult);
    if (sent.error().status == SendStatus::broken) end(Lock(_mutex), Life::ended);
}

template <class Encode>
ErrorRef ConnectionState::send(const Encode& encode) {
    return errorOf(_stream->send(encode));
}

ErrorRef ConnectionState::errorOf(const Result<void, SendError>& sent) {
    if (sent) return nullptr;
    const auto [status, number] = sent.error();
    if (status == SendStatus::refused) return makePosixError(number);
    // If the other side is unreachable, its earlier messages may still be read.
    if (status == SendStatus::broken) end(Lock(_mutex), Life::ended);
    return makeConnectionInvalidError(number);
}

ErrorRef ConnectionState::notify(std::string_view selector, const Array& params) {
    return send([&](EncodedMessage& out) { return encodeNotification(selector, params, out); });
}

ErrorRef ConnectionState::notifyLater(std::string_view selector, const Array& params) {
    return errorOf(_stream->sendLater(
        [&](EncodedMessage& out) { return encodeNotification(selector, params, out); }));
}

ErrorRef ConnectionState::flush() {
    return errorOf(_stream->flush());
}

ErrorRef ConnectionState::sendRequest(std::uint32_t identifier, std::string_view selector,
                                      const Array& params) {
    return send(
        [&](EncodedMessage& out) { return encodeRequest(identifier, selector, params, out); });
}

/// Returns std::nullopt if the connection has ended.
std::optional<std::uint32_t> ConnectionState::addCall(PendingCall call) {
    const Lock lock(_mutex);
    if (_life != Life::open) return std::nullopt;
    while (_calls.count(_nextIdentifier) > 0)
        ++_nextIdentifier;
    const std::uint32_t identifier = _nextIdentifier++;
    _calls.emplace(identifier, std::move(call));
    return identifier;
}

CallOutcome ConnectionState::call(std::string_view selector, const Array& params) {
    BlockedCall blocked;
    const std::optional<std::uint32_t> identifier = addCall(&blocked);
    if (!identifier) return failure(_invalidError);
    ErrorRef error = sendRequest(*identifier, selector, params);
    Lock lock(_mutex);
    if (error) {
        _calls.erase(*identifier);
        return failure(std::move(error));
    }
    while (!blocked.outcome) {
        Message message;
        if (_isReading) {
            _changed.wait(lock);
        } else if (readOne(lock, message)) {
            dispatch(std::move(message));
        }
    }
    // The connection may have ended in this thread.
    if (_life != Life::open) end(std::move(lock), Life::ended);
    return *std::move(blocked.outcome);
}

void ConnectionState::callWithReply(std::string_view selector, const Array& params,
                                    CallReply callback) {
    const std::optional<std::uint32_t> identifier = addCall(callback);
    if (!identifier) return callback(failure(_invalidError));
    {
        Lock lock(_mutex);
        startThreadIfNeeded(lock);
    }
    const ErrorRef error = sendRequest(*identifier, selector, params);
    if (!error) return;
    Lock lock(_mutex);
    // The thread that removes the call from the list runs its callback.
    const bool isRemoved = _calls.erase(*identifier) > 0;
    lock.unlock();
    if (isRemoved) callback(failure(error));
}

}  // namespace corvalen
