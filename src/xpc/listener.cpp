// SPDX-License-Identifier: MIT
#include "xpc/listener.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include "xpc/listener_state.hpp"
#include "xpc/socket_io.hpp"

namespace corvalen {
namespace {

// Milliseconds. A connection that cannot be accepted for lack of descriptors stays in the queue;
// the pause prevents a busy loop.
constexpr int kPauseWithoutDescriptors = 100;

/// The listener whose delegate runs on the calling thread.
thread_local const ListenerState* offeringListener = nullptr;

}  // namespace

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

ListenerState::ListenerState(UniqueFd socket, std::shared_ptr<UserQuotaTable> userQuotas)
    : listeningSocket(std::move(socket)),
      poller(::epoll_create1(EPOLL_CLOEXEC)),
      wakeUp(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      quotas(std::move(userQuotas)),
      isService(static_cast<bool>(listeningSocket)) {
    invalid = !poller || !wakeUp || !watch(wakeUp, kWakeUp);
    if (!isService) return;
    // Another process may accept the connection between epoll_wait(2) and accept4(2).
    const int flags = ::fcntl(listeningSocket.get(), F_GETFL);
    (void)::fcntl(listeningSocket.get(), F_SETFL, flags | O_NONBLOCK);
    if (!watch(listeningSocket, kListeningSocket)) invalid = true;
}

/// Endpoints of a service are one-shot; the thread that handled an event rearms them.
bool ListenerState::watch(Descriptor descriptor, SourceId source, int operation) const noexcept {
    epoll_event event{};
    event.events = EPOLLIN | EPOLLRDHUP;
    if (isService && source >= kFirstEndpoint) event.events |= EPOLLONESHOT;
    event.data.u64 = source;
    return ::epoll_ctl(poller.get(), operation, descriptor.get(), &event) == 0;
}

void ListenerState::wake() const noexcept {
    const std::uint64_t one = 1;
    // write(2) fails only if the counter is full, and then the thread is awake.
    (void)!::write(wakeUp.get(), &one, sizeof one);
}

/// Waits while the listener is suspended. Returns false once it is invalid.
bool ListenerState::waitUntilActive() {
    for (;;) {
        std::uint64_t ignored = 0;
        (void)!::read(wakeUp.get(), &ignored, sizeof ignored);
        {
            const std::lock_guard lock(mutex);
            if (invalid) return false;
            if (resumed) return true;
        }
        (void)waitFor(wakeUp, POLLIN, std::nullopt);
    }
}

void ListenerState::run() {
    std::array<epoll_event, 16> events{};
    while (waitUntilActive()) {
        const int count =
            ::epoll_wait(poller.get(), events.data(), static_cast<int>(events.size()), -1);
        outOfResources = false;
        for (int i = 0; i < count; ++i) {
            try {
                handle(events[static_cast<std::size_t>(i)]);
            } catch (...) {
                // Out of memory for one connection: it is closed, the others continue.
                accepting = false;
            }
        }
        if (outOfResources) (void)::poll(nullptr, 0, kPauseWithoutDescriptors);
    }
}

void ListenerState::handle(const epoll_event& event) {
    const EndpointEvent endpointEvent{event.data.u64, event.events};
    std::optional<Arrival> arrival;
    if (event.data.u64 == kListeningSocket) {
        arrival = takeFromSocket();
    } else if (event.data.u64 >= kFirstEndpoint) {
        if (isService) return queueForOwner(endpointEvent);
        arrival = takeFromEndpoint(endpointEvent);
    }
    if (arrival) offer(std::move(*arrival));
    accepting = false;
}

std::optional<Arrival> ListenerState::takeFromSocket() {
    UniqueFd socket;
    {
        const std::lock_guard lock(mutex);
        if (!resumed || invalid) return std::nullopt;
        accepting = true;
        socket.reset(::accept4(listeningSocket.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }
    if (!socket) {
        outOfResources = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
        return std::nullopt;
    }
    ForeignSocket foreign(std::move(socket));
    PeerIdentity peer = peerIdentityOfSocket(foreign.socket());
    return Arrival{std::move(foreign), std::move(peer)};
}

void ListenerState::offer(Arrival arrival) {
    if (arrival.peer.uid == static_cast<uid_t>(-1)) return;
    ConnectionOptions options;
    std::shared_ptr<UserQuotas> userQuotas;
    if (isService) {
        options.sendTimeout = wire::kReplyTimeout;
        userQuotas = quotas->quotasForUser(arrival.peer.uid);
    }
    const std::shared_ptr<Connection> connection =
        openConnection(std::move(arrival.socket.socket()), std::move(arrival.peer),
                       std::move(userQuotas), options);
    if (!connection || !beginOffer()) return;
    bool accepted = false;
    try {
        if (isService) remember(*connection);
        connection->state().holdUntilEnded(connection);
        accepted = delegate->listenerShouldAcceptNewConnection(*listener, connection);
    } catch (...) {
        accepted = false;
    }
    endOffer();
    if (!accepted) connection->invalidate();
    closeElsewhere(connection->state().takeUnservedSocket());
}

/// Returns false if the delegate must not be called any more.
bool ListenerState::beginOffer() {
    const std::lock_guard lock(mutex);
    if (invalid || delegate == nullptr) return false;
    ++runningOffers;
    offeringListener = this;
    return true;
}

void ListenerState::endOffer() {
    offeringListener = nullptr;
    const std::lock_guard lock(mutex);
    --runningOffers;
    offerEnded.notify_all();
}

bool ListenerState::isOffering() const noexcept {
    return offeringListener == this;
}

void ListenerState::remember(const Connection& connection) {
    const std::lock_guard lock(mutex);
    if (served.size() == served.capacity())
        std::erase_if(served, [](const auto& each) { return each.expired(); });
    served.push_back(connection.state().weak_from_this());
}

/// Call with the lock held.
bool ListenerState::isBusy(const Connection* except) const {
    if (accepting || !ownerThreads.empty()) return true;
    // A client that waits to be accepted may have sent a request.
    if (listeningSocket && waitFor(listeningSocket, POLLIN, Clock::now())) return true;
    const ConnectionState* ignored = except != nullptr ? &except->state() : nullptr;
    return std::any_of(served.begin(), served.end(), [ignored](const auto& each) {
        const std::shared_ptr<ConnectionState> state = each.lock();
        return state && state.get() != ignored && state->isBusy();
    });
}

}  // namespace corvalen
