// SPDX-License-Identifier: MIT
#include "xpc/connection_state.hpp"

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <thread>
#include <utility>

namespace corvalen {

namespace {

template <class Callback>
void runQuietly(const Callback& callback) noexcept {
    try {
        callback();
    } catch (...) {
        // No caller could handle a callback's exception.
    }
}

}  // namespace

ConnectionState::ConnectionState(std::unique_ptr<MessageStream> stream, PeerIdentity peer,
                                 QuotaCharge connectionCharge, std::shared_ptr<UserQuotas> quotas)
    : _stream(std::move(stream)),
      _peer(std::move(peer)),
      _connectionCharge(std::move(connectionCharge)),
      _quotas(std::move(quotas)),
      _invalidError(makeConnectionInvalidError()) {}

void ConnectionState::setHandle(std::weak_ptr<Connection> handle) {
    _handle = std::move(handle);
}

void ConnectionState::setExported(const Interface& interface,
                                  std::shared_ptr<ExportedObject> object) {
    Lock lock(_mutex);
    _interface = interface;
    _object.swap(object);
    startThreadIfNeeded(lock);
}

void ConnectionState::setInvalidationHandler(std::function<void()> handler) {
    Lock lock(_mutex);
    _invalidationHandler.swap(handler);
    startThreadIfNeeded(lock);
}

void ConnectionState::setSendTimeout(std::optional<std::chrono::milliseconds> timeout) {
    _stream->setSendTimeout(timeout);
}

void ConnectionState::holdUntilEnded(std::shared_ptr<Connection> handle) {
    const Lock lock(_mutex);
    if (_life != Life::finished) _held = std::move(handle);
}

void ConnectionState::resume() {
    Lock lock(_mutex);
    _isResumed = true;
    startThreadIfNeeded(lock);
    _changed.notify_all();
}

void ConnectionState::suspend() {
    const Lock lock(_mutex);
    _isResumed = false;
}

void ConnectionState::invalidate() noexcept {
    end(Lock(_mutex), Life::invalidated);
}

UniqueFd ConnectionState::takeUnservedSocket() noexcept {
    const Lock lock(_mutex);
    return _life == Life::finished && !_hasThread ? _stream->takeSocket() : UniqueFd();
}

/// Does nothing if the connection has come that far already.
void ConnectionState::advanceTo(Life life) noexcept {
    const bool wasOpen = _life == Life::open;
    _life = std::max(_life, life);
    if (wasOpen && _life != Life::open) {
        _stream->shutDown();
        failBlockedCalls();
    }
    _changed.notify_all();
}

/// `finish` fails the other calls.
void ConnectionState::failBlockedCalls() noexcept {
    std::erase_if(_calls, [this](auto& each) {
        BlockedCall* const* call = std::get_if<BlockedCall*>(&each.second);
        if (call != nullptr) (*call)->outcome = failure(_invalidError);
        return call != nullptr;
    });
}

/// Ends the connection and, if it has no thread to do so, finishes it.
void ConnectionState::end(Lock lock, Life life) noexcept {
    advanceTo(life);
    if (!_hasThread) finish(std::move(lock));
}

/// Unlocks, runs the pending callbacks, then releases what they own.
void ConnectionState::finish(Lock lock) noexcept {
    if (_life == Life::finished) return;
    advanceTo(Life::finished);
    const auto work = std::exchange(_work, {});
    const auto calls = std::exchange(_calls, {});
    const auto handler = std::exchange(_invalidationHandler, nullptr);
    const auto object = std::exchange(_object, nullptr);
    const auto held = std::exchange(_held, nullptr);
    lock.unlock();
    for (const Work& each : work) {
        const Delivery* delivery = std::get_if<Delivery>(&each);
        if (delivery == nullptr) continue;
        runQuietly([&] { delivery->callback(delivery->outcome); });
    }
    for (const auto& [identifier, call] : calls)
        runQuietly(
            [&, &callback = std::get<CallReply>(call)] { callback(failure(_invalidError)); });
    if (handler) runQuietly(handler);
}

/// A connection that only sends needs no thread.
bool ConnectionState::needsThread() const {
    return _held || _object || _invalidationHandler || !_calls.empty();
}

/// May unlock.
void ConnectionState::startThreadIfNeeded(Lock& lock) {
    if (!_isResumed || _hasThread || _life != Life::open || !needsThread()) return;
    try {
        std::thread([self = shared_from_this()] { self->run(); }).detach();
        _hasThread = true;
    } catch (const std::system_error&) {
        end(std::move(lock), Life::invalidated);
    }
}

/// The connection's thread.
void ConnectionState::run() {
    _stream->finishOpening();
    Lock lock(_mutex);
    while (_life == Life::open || (_life == Life::ended && !_work.empty()))
        runOnce(lock);
    _changed.wait(lock, [this] { return !_isReading; });
    finish(std::move(lock));
    _stream->takeSocket().reset();
}

/// Handles one message or waits for a change.
void ConnectionState::runOnce(Lock& lock) {
    if (!_isResumed || (_work.empty() && _isReading)) return _changed.wait(lock);
    if (!_work.empty()) {
        Work work = std::move(_work.front());
        _work.pop_front();
        return handle(lock, std::move(work));
    }
    Message message;
    if (!readOne(lock, message)) return;
    // No other thread has read since, so no earlier message is queued.
    const bool mayHandle = _isResumed && _life < Life::invalidated;
    if (mayHandle && message.type != MessageType::response) {
        handle(lock, std::move(message));
    } else {
        dispatch(std::move(message));
    }
}

/// Reads one message for any of the waiting threads. Returns false once no more will arrive.
bool ConnectionState::readOne(Lock& lock, Message& message) {
    _isReading = true;
    lock.unlock();
    bool good = false;
    try {
        good = _stream->read(message);
    } catch (...) {
        // Out of memory for this message: only this connection ends.
    }
    lock.lock();
    _isReading = false;
    if (good) {
        _changed.notify_all();
    } else {
        advanceTo(Life::ended);
    }
    return good;
}

/// Hands a message to the call that waits for it, or queues it for the connection's thread.
void ConnectionState::dispatch(Message&& message) {
    try {
        if (message.type == MessageType::response) {
            deliverReply(std::move(message));
        } else if (_work.size() == wire::kMaximumQueuedMessages) {
            advanceTo(Life::ended);
        } else {
            _work.emplace_back(std::move(message));
        }
    } catch (...) {
        advanceTo(Life::ended);
    }
}

void ConnectionState::deliverReply(Message&& message) {
    const auto call = _calls.find(message.identifier);
    // Ignore a reply to no pending call.
    if (call == _calls.end()) return;
    CallOutcome outcome;
    if (message.callError) {
        Dictionary why{{std::string(kLocalizedDescriptionKey), std::move(*message.callError)}};
        outcome = failure(makePosixError(EINVAL, std::move(why)));
    } else {
        outcome = std::move(message.result);
    }
    if (BlockedCall* const* blocked = std::get_if<BlockedCall*>(&call->second)) {
        (*blocked)->outcome = std::move(outcome);
    } else {
        _work.emplace_back(
            Delivery{std::move(std::get<CallReply>(call->second)), std::move(outcome)});
    }
    _calls.erase(call);
}

}  // namespace corvalen
