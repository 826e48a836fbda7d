// SPDX-License-Identifier: MIT
#include "xpc/listener.hpp"

#include <system_error>
#include <utility>

#include "xpc/listener_state.hpp"

namespace corvalen {

Listener::Listener(std::shared_ptr<ListenerState> state) : _state(std::move(state)) {
    _state->listener = this;
}

Listener::~Listener() {
    invalidate();
    join();
}

std::unique_ptr<Listener> Listener::listenerAtSocket(UniqueFd listeningSocket,
                                                     std::shared_ptr<UserQuotaTable> quotas) {
    return std::unique_ptr<Listener>(new Listener(
        std::make_shared<ListenerState>(std::move(listeningSocket), std::move(quotas))));
}

std::unique_ptr<Listener> Listener::anonymousListener() {
    return listenerAtSocket(UniqueFd());
}

void Listener::setDelegate(ListenerDelegate* delegate) {
    const std::lock_guard lock(_state->mutex);
    _state->delegate = delegate;
}

void Listener::resume() {
    const std::lock_guard lock(_state->mutex);
    if (_state->invalid) return;
    _state->resumed = true;
    _state->wake();
    if (_thread.joinable()) return;
    try {
        _thread = std::thread([state = _state] { state->run(); });
    } catch (const std::system_error&) {
        _state->invalid = true;
    }
}

void Listener::suspend() {
    const std::lock_guard lock(_state->mutex);
    _state->resumed = false;
    _state->wake();
}

void Listener::invalidate() {
    const std::lock_guard lock(_state->mutex);
    _state->invalid = true;
    closeElsewhere(std::move(_state->listeningSocket));
    _state->invalidateEndpoints();
    if (_state->wakeUp) _state->wake();
}

/// Waits for running calls of the delegate, unless the delegate destroys the listener.
void Listener::join() {
    if (!_state->isOffering()) {
        std::unique_lock lock(_state->mutex);
        _state->offerEnded.wait(lock, [this] { return _state->runningOffers == 0; });
    }
    if (!_thread.joinable()) return;
    if (_thread.get_id() == std::this_thread::get_id()) {
        _thread.detach();
    } else {
        _thread.join();
    }
}

EndpointRef Listener::endpoint(const PeerIdentity* owner) {
    return _state->addEndpoint(owner);
}

bool Listener::hasBusyConnection() const {
    const std::lock_guard lock(_state->mutex);
    return _state->isBusy(nullptr);
}

bool Listener::suspendIfIdle(const Connection* except, const std::function<bool()>& condition) {
    const std::lock_guard lock(_state->mutex);
    if (_state->isBusy(except) || !condition()) return false;
    _state->resumed = false;
    return true;
}

}  // namespace corvalen
