// SPDX-License-Identifier: MIT
// The messages of a connection: handling received ones, and sending.
#include <cerrno>
#include <utility>

#include "xpc/connection_state.hpp"

namespace corvalen {

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
        callback(std::move(delivery.reply.result), std::move(delivery.reply.error));
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
    int errnoValue = 0;
    const SendStatus status = _stream->send(
        [&](EncodedMessage& out) { return encodeResult(identifier, result.result, out); },
        &errnoValue);
    if (status == SendStatus::refused) refuse(kUnsendableResult);
    if (status == SendStatus::broken) end(Lock(_mutex), Life::ended);
}

template <class Encode>
ErrorRef ConnectionState::send(const Encode& encode) {
    int errnoValue = 0;
    switch (_stream->send(encode, &errnoValue)) {
        case SendStatus::sent:
            return nullptr;
        case SendStatus::refused:
            return makePosixError(errnoValue);
        case SendStatus::unreachable:
            // Earlier messages of the other side may still be read.
            break;
        case SendStatus::broken:
            end(Lock(_mutex), Life::ended);
            break;
    }
    return makeConnectionInvalidError(errnoValue);
}

ErrorRef ConnectionState::notify(std::string_view selector, const Array& params) {
    return send([&](EncodedMessage& out) { return encodeNotification(selector, params, out); });
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

Value ConnectionState::call(std::string_view selector, const Array& params, ErrorRef& error) {
    BlockedCall blocked;
    const std::optional<std::uint32_t> identifier = addCall(&blocked);
    error = identifier ? sendRequest(*identifier, selector, params) : _invalidError;
    if (!identifier) return Value();
    Lock lock(_mutex);
    if (error) {
        _calls.erase(*identifier);
        return Value();
    }
    while (!blocked.reply) {
        Message message;
        if (_isReading) {
            _changed.wait(lock);
        } else if (readOne(lock, message)) {
            dispatch(std::move(message));
        }
    }
    // The connection may have ended in this thread.
    if (_life != Life::open) end(std::move(lock), Life::ended);
    error = std::move(blocked.reply->error);
    return std::move(blocked.reply->result);
}

void ConnectionState::callWithReply(std::string_view selector, const Array& params,
                                    CallReply callback) {
    const std::optional<std::uint32_t> identifier = addCall(callback);
    if (!identifier) return callback(Value(), _invalidError);
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
    if (isRemoved) callback(Value(), error);
}

}  // namespace corvalen
