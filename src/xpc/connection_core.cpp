// SPDX-License-Identifier: MIT
#include "xpc/connection_core.hpp"

#include <cerrno>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/thread_umask.hpp"

namespace corvalen {

namespace {

constexpr std::string_view kUnknownMethod = "unknown method";
constexpr std::string_view kUnsendableResult = "the result cannot be sent";

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

thread_local Connection* currentConnection = nullptr;

ErrorRef makeConnectionInvalidError(int errnoValue) {
    std::optional<Dictionary> userInfo;
    if (errnoValue != 0) {
        userInfo = Dictionary{{std::string(kUnderlyingErrorKey), makePosixError(errnoValue)}};
    }
    return makeError(kCocoaErrorDomain, cocoa::kConnectionInvalid, std::move(userInfo));
}

Channel::Channel(std::unique_ptr<MessageStream> stream, PeerIdentity peer, QuotaCharge place,
                 std::shared_ptr<UserQuotas> quotas)
    : _stream(std::move(stream)),
      _peer(std::move(peer)),
      _place(std::move(place)),
      _quotas(std::move(quotas)),
      _invalidError(makeConnectionInvalidError()) {}

void Channel::setCore(const std::shared_ptr<ConnectionCore>& core) {
    _core = core;
}

void Channel::setExported(const Interface& interface, std::shared_ptr<ExportedObject> object) {
    Lock lock(_mutex);
    _interface = interface;
    _object.swap(object);
    startThreadIfNeeded(lock);
}

void Channel::setInvalidationHandler(std::function<void()> handler) {
    Lock lock(_mutex);
    _invalidationHandler.swap(handler);
    startThreadIfNeeded(lock);
}

void Channel::setSendTimeout(std::optional<std::chrono::milliseconds> timeout) {
    _stream->setSendTimeout(timeout);
}

void Channel::holdUntilEnded(std::shared_ptr<Connection> connection) {
    const Lock lock(_mutex);
    if (_finished) return;
    _accepted = true;
    _held = std::move(connection);
}

void Channel::resume() {
    Lock lock(_mutex);
    _resumed = true;
    startThreadIfNeeded(lock);
    _changed.notify_all();
}

void Channel::suspend() {
    const Lock lock(_mutex);
    _resumed = false;
}

void Channel::invalidate() noexcept {
    Lock lock(_mutex);
    _invalidated = true;
    end();
    if (!_threadStarted) finish(lock);
}

/// A connection that only sends needs no thread.
bool Channel::needsThread() const {
    return _accepted || _object || _invalidationHandler || !_calls.empty();
}

void Channel::startThreadIfNeeded(Lock& lock) {
    if (!_resumed || _threadStarted || _ended || !needsThread()) return;
    try {
        std::thread([self = shared_from_this()] { self->run(); }).detach();
        _threadStarted = true;
    } catch (const std::system_error&) {
        _invalidated = true;
        end();
        finish(lock);
    }
}

void Channel::run() {
    separateFileCreationMask();
    _stream->finishOpening();
    Lock lock(_mutex);
    while (!_invalidated) {
        if (_resumed && !_work.empty()) {
            Work work = std::move(_work.front());
            _work.pop_front();
            handle(lock, std::move(work));
        } else if (_ended && _work.empty()) {
            break;
        } else if (_resumed && !_ended && !_reading) {
            Message message;
            if (!readOne(lock, message)) continue;
            // No other thread has read since, so no earlier message is queued.
            const bool mayHandle = _resumed && !_invalidated;
            if (mayHandle && message.type != MessageType::response) {
                handle(lock, std::move(message));
            } else {
                dispatch(std::move(message));
            }
        } else {
            _changed.wait(lock);
        }
    }
    _changed.wait(lock, [this] { return !_reading; });
    finish(lock);
    if (lock.owns_lock()) lock.unlock();
    _stream->takeSocket().reset();
}

bool Channel::isOf(const Connection* connection) const {
    const std::shared_ptr<ConnectionCore> core = _core.lock();
    return connection != nullptr && core && core->connection.lock().get() == connection;
}

UniqueFd Channel::takeUnservedSocket() noexcept {
    const Lock lock(_mutex);
    return _finished && !_threadStarted ? _stream->takeSocket() : UniqueFd();
}

/// Reads one message for any of the waiting threads. Returns false once no more will arrive.
bool Channel::readOne(Lock& lock, Message& message) {
    _reading = true;
    lock.unlock();
    bool good = false;
    try {
        good = _stream->read(message);
    } catch (...) {
        // Out of memory for this message: only this connection ends.
    }
    lock.lock();
    _reading = false;
    if (!good) end();
    _changed.notify_all();
    return good;
}

/// Hands a message to the call that waits for it, or queues it for the connection's thread.
void Channel::dispatch(Message&& message) {
    try {
        if (message.type == MessageType::response) {
            answerCall(std::move(message));
        } else if (_work.size() == wire::kMaximumWaitingMessages) {
            end();
        } else {
            _work.emplace_back(std::move(message));
        }
    } catch (...) {
        end();
    }
}

void Channel::answerCall(Message&& message) {
    const auto call = _calls.find(message.identifier);
    // Ignore a reply to no pending call.
    if (call == _calls.end()) return;
    if (Waiter* const* waiter = std::get_if<Waiter*>(&call->second)) {
        (*waiter)->answer = answerFrom(std::move(message));
    } else {
        CallReply reply = std::move(std::get<CallReply>(call->second));
        _work.emplace_back(Delivery{std::move(reply), answerFrom(std::move(message))});
    }
    _calls.erase(call);
}

Channel::Answer Channel::answerFrom(Message&& message) {
    if (!message.callError) return Answer{std::move(message.result), nullptr};
    return Answer{Value(), makePosixError(EINVAL, Dictionary{{std::string(kLocalizedDescriptionKey),
                                                              std::move(*message.callError)}})};
}

/// Fails the calls that block their threads; `finish` fails the others.
void Channel::end() noexcept {
    if (_ended) return _changed.notify_all();
    _ended = true;
    _stream->shutDown();
    std::erase_if(_calls, [this](auto& call) {
        Waiter* const* waiter = std::get_if<Waiter*>(&call.second);
        if (waiter != nullptr) (*waiter)->answer = Answer{Value(), _invalidError};
        return waiter != nullptr;
    });
    _changed.notify_all();
}

/// Unlocks, runs the pending callbacks, then releases what they own.
void Channel::finish(Lock& lock) noexcept {
    if (_finished) return;
    _finished = true;
    const auto work = std::exchange(_work, {});
    const auto calls = std::exchange(_calls, {});
    const auto handler = std::exchange(_invalidationHandler, nullptr);
    const auto object = std::exchange(_object, nullptr);
    const auto held = std::exchange(_held, nullptr);
    lock.unlock();
    const auto quietly = [](const auto& callback) {
        try {
            callback();
        } catch (...) {
            // No caller could handle a callback's exception.
        }
    };
    for (const Work& each : work) {
        const Delivery* delivery = std::get_if<Delivery>(&each);
        if (delivery == nullptr) continue;
        quietly([&] { delivery->reply(delivery->answer.result, delivery->answer.error); });
    }
    for (const auto& [identifier, call] : calls) {
        quietly([&, &reply = std::get<CallReply>(call)] { reply(Value(), _invalidError); });
    }
    if (handler) quietly(handler);
}

void Channel::endAfterFailedSend() {
    Lock lock(_mutex);
    end();
    if (!_threadStarted) finish(lock);
}

void Channel::handle(Lock& lock, Work&& work) {
    if (Message* message = std::get_if<Message>(&work)) return handle(lock, std::move(*message));
    Delivery& delivery = std::get<Delivery>(work);
    withoutLock(lock, [&] {
        delivery.reply(std::move(delivery.answer.result), std::move(delivery.answer.error));
    });
}

void Channel::handle(Lock& lock, Message&& message) {
    const InterfaceMethod* method = _interface.find(message.method);
    // Set before `resume`; released by this thread when the connection finishes.
    ExportedObject* const object = _object.get();
    withoutLock(lock, [&] { handleMessage(std::move(message), method, object); });
}

template <class Handler>
void Channel::withoutLock(Lock& lock, const Handler& handler) {
    lock.unlock();
    try {
        handler();
    } catch (...) {
        // The handler left its message half done: end this connection only.
        invalidate();
    }
    lock.lock();
}

void Channel::handleMessage(Message&& message, const InterfaceMethod* method,
                            ExportedObject* object) {
    const std::shared_ptr<ConnectionCore> core = _core.lock();
    if (!core) return;
    std::shared_ptr<Connection> connection = core->connection.lock();
    // Only proxies are left, but the handler needs a connection.
    if (!connection) connection = std::make_shared<Connection>(core);

    const bool asked = message.type == MessageType::request;
    CallResult result;
    if (method == nullptr || object == nullptr) {
        if (!asked) return;
        result = CallResult::refused(std::string(kUnknownMethod));
    } else if (!asked && method->hasReply) {
        // A notification has no reply to carry the result.
        return;
    } else {
        const CurrentConnection current(connection.get());
        result = object->handleMessage(*connection, method->selector, std::move(message.params));
        if (!method->hasReply) result.result = Value();
    }
    if (asked) answer(message.identifier, result);
}

void Channel::answer(std::uint32_t identifier, const CallResult& result) {
    const auto refuse = [&](std::string_view why) {
        return send([&](EncodedMessage& out) { return encodeRefusal(identifier, why, out); });
    };
    if (!result.callError.empty()) {
        (void)refuse(result.callError);
        return;
    }
    int errnoValue = 0;
    const SendStatus status = _stream->send(
        [&](EncodedMessage& out) { return encodeResult(identifier, result.result, out); },
        &errnoValue);
    if (status == SendStatus::refused) (void)refuse(kUnsendableResult);
    if (status == SendStatus::broken) endAfterFailedSend();
}

template <class Encode>
ErrorRef Channel::send(const Encode& encode) {
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
            endAfterFailedSend();
            break;
    }
    return makeConnectionInvalidError(errnoValue);
}

ErrorRef Channel::notify(std::string_view selector, const Array& params) {
    return send([&](EncodedMessage& out) { return encodeNotification(selector, params, out); });
}

ErrorRef Channel::sendRequest(std::uint32_t identifier, std::string_view selector,
                              const Array& params) {
    return send(
        [&](EncodedMessage& out) { return encodeRequest(identifier, selector, params, out); });
}

/// Returns std::nullopt if the connection has ended.
std::optional<std::uint32_t> Channel::addCall(PendingCall call) {
    Lock lock(_mutex);
    if (_ended) return std::nullopt;
    while (_calls.count(_nextIdentifier) > 0)
        ++_nextIdentifier;
    const std::uint32_t identifier = _nextIdentifier++;
    _calls.emplace(identifier, std::move(call));
    return identifier;
}

Value Channel::call(std::string_view selector, const Array& params, ErrorRef& error) {
    Waiter waiter;
    const std::optional<std::uint32_t> identifier = addCall(&waiter);
    error = identifier ? sendRequest(*identifier, selector, params) : _invalidError;
    if (!identifier) return Value();
    Lock lock(_mutex);
    if (error) {
        _calls.erase(*identifier);
        return Value();
    }
    while (!waiter.answer) {
        Message message;
        if (_reading) {
            _changed.wait(lock);
        } else if (readOne(lock, message)) {
            dispatch(std::move(message));
        }
    }
    if (_ended && !_threadStarted) {
        finish(lock);
    }
    error = std::move(waiter.answer->error);
    return std::move(waiter.answer->result);
}

void Channel::callWithReply(std::string_view selector, const Array& params, CallReply reply) {
    const std::optional<std::uint32_t> identifier = addCall(reply);
    if (!identifier) return reply(Value(), _invalidError);
    {
        Lock lock(_mutex);
        startThreadIfNeeded(lock);
    }
    const ErrorRef error = sendRequest(*identifier, selector, params);
    if (!error) return;
    Lock lock(_mutex);
    // The thread that removes the call from the list runs its callback.
    const bool mine = _calls.erase(*identifier) > 0;
    lock.unlock();
    if (mine) reply(Value(), error);
}

}  // namespace corvalen
