// SPDX-License-Identifier: MIT
#include "xpc/listener.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <map>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "xpc/connection_core.hpp"
#include "xpc/endpoint.hpp"
#include "xpc/socket_io.hpp"

namespace corvalen {

namespace {

using SourceId = std::uint64_t;
constexpr SourceId kWakeUp = 0;
constexpr SourceId kListeningSocket = 1;
constexpr SourceId kFirstEndpoint = 2;

// Milliseconds. A connection that cannot be accepted for want of descriptors stays in the queue:
// the wait keeps that from becoming a busy loop.
constexpr int kPauseWithoutDescriptors = 100;

/// A new connection, before anybody has looked at it.
struct Arrival {
    UniqueFd socket;
    PeerIdentity peer;
};

}  // namespace

class Listener::Impl {
  public:
    explicit Impl(UniqueFd listeningSocket);

    void attach(Listener* owner) noexcept { _owner = owner; }
    void setDelegate(ListenerDelegate* delegate);
    void resume();
    void suspend();
    void invalidate();
    /// Waits until the delegate is no longer called, unless this is the delegate calling.
    void join();
    EndpointRef endpoint(const PeerIdentity* owner);

  private:
    /// The half that stays here, and what its holder pays for it.
    struct EndpointHalf {
        UniqueFd socket;
        QuotaCharge charge;
    };
    struct Shared;

    std::shared_ptr<Shared> _shared;
    Listener* _owner = nullptr;
    std::thread _thread;
};

/// What the listener's thread needs; it may outlive the listener when the delegate destroys it.
struct Listener::Impl::Shared {
    std::mutex mutex;
    UniqueFd listeningSocket;
    UniqueFd poller;
    UniqueFd wakeUp;
    std::map<SourceId, EndpointHalf> endpoints;
    SourceId nextEndpoint = kFirstEndpoint;
    UserQuotaTable quotas;
    ListenerDelegate* delegate = nullptr;
    bool servesOthers = false;
    bool resumed = false;
    bool invalid = false;
    /// Of the thread alone: the last accept failed for want of descriptors or memory.
    bool outOfRoom = false;

    bool watch(int descriptor, SourceId source) const noexcept;
    void wake() const noexcept;
    void run(Listener& listener);
    bool waitUntilActive();
    std::optional<Arrival> take(const epoll_event& event);
    std::optional<Arrival> takeFromSocket();
    std::optional<Arrival> takeFromEndpoint(SourceId source, std::uint32_t events);
    void offer(Listener& listener, Arrival arrival);
};

bool Listener::Impl::Shared::watch(int descriptor, SourceId source) const noexcept {
    epoll_event event{};
    event.events = EPOLLIN | EPOLLRDHUP;
    event.data.u64 = source;
    return ::epoll_ctl(poller.get(), EPOLL_CTL_ADD, descriptor, &event) == 0;
}

void Listener::Impl::Shared::wake() const noexcept {
    const std::uint64_t one = 1;
    // Only a full counter could refuse, and then the thread is awake anyway.
    (void)!::write(wakeUp.get(), &one, sizeof one);
}

/// Sleeps as long as the listener is suspended. False when it has become invalid.
bool Listener::Impl::Shared::waitUntilActive() {
    for (;;) {
        std::uint64_t ignored = 0;
        (void)!::read(wakeUp.get(), &ignored, sizeof ignored);
        {
            const std::lock_guard lock(mutex);
            if (invalid) return false;
            if (resumed) return true;
        }
        (void)waitFor(wakeUp.get(), POLLIN, std::nullopt);
    }
}

void Listener::Impl::Shared::run(Listener& listener) {
    std::array<epoll_event, 16> events{};
    while (waitUntilActive()) {
        const int count =
            ::epoll_wait(poller.get(), events.data(), static_cast<int>(events.size()), -1);
        outOfRoom = false;
        for (int i = 0; i < count; ++i) {
            try {
                std::optional<Arrival> arrival = take(events[static_cast<std::size_t>(i)]);
                if (arrival) offer(listener, std::move(*arrival));
            } catch (...) {
                // No memory for one connection: it is closed, the others go on.
            }
        }
        if (outOfRoom) (void)::poll(nullptr, 0, kPauseWithoutDescriptors);
    }
}

std::optional<Arrival> Listener::Impl::Shared::take(const epoll_event& event) {
    const std::lock_guard lock(mutex);
    if (!resumed || invalid || event.data.u64 == kWakeUp) return std::nullopt;
    return event.data.u64 == kListeningSocket ? takeFromSocket()
                                              : takeFromEndpoint(event.data.u64, event.events);
}

std::optional<Arrival> Listener::Impl::Shared::takeFromSocket() {
    UniqueFd socket(::accept4(listeningSocket.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!socket) {
        outOfRoom = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
        return std::nullopt;
    }
    PeerIdentity peer = peerIdentityOfSocket(socket.get());
    return Arrival{std::move(socket), std::move(peer)};
}

std::optional<Arrival> Listener::Impl::Shared::takeFromEndpoint(SourceId source,
                                                                std::uint32_t events) {
    const auto endpoint = endpoints.find(source);
    if (endpoint == endpoints.end()) return std::nullopt;
    OfferedConnection offered;
    const OfferStatus status = takeOffer(endpoint->second.socket.get(), offered);
    const bool nothingLeft = status == OfferStatus::nothing || status == OfferStatus::empty;
    if (nothingLeft && (events & (EPOLLHUP | EPOLLRDHUP | EPOLLERR)) != 0) {
        endpoints.erase(endpoint);
    }
    if (status != OfferStatus::taken) return std::nullopt;
    // Halves that this process made itself are also in the hands of those it sent them to. Makers
    // without a number here (pid_namespaces(7)) cannot be told apart.
    const bool isKnown = offered.peer.pid > 0 && offered.peer.pid != ::getpid();
    if (servesOthers && !isKnown) return std::nullopt;
    return Arrival{std::move(offered.half), std::move(offered.peer)};
}

void Listener::Impl::Shared::offer(Listener& listener, Arrival arrival) {
    if (delegate == nullptr || arrival.peer.uid == static_cast<uid_t>(-1)) return;
    ConnectionOptions options;
    std::shared_ptr<UserQuotas> userQuotas;
    if (servesOthers) {
        options.sendTimeout = wire::kAnswerTimeout;
        userQuotas = quotas.quotasForUser(arrival.peer.uid);
    }
    const OpenedConnection opened = openConnection(
        std::move(arrival.socket), std::move(arrival.peer), std::move(userQuotas), options);
    if (!opened.connection) return;
    opened.channel->holdUntilEnded(opened.connection);
    bool accepted = false;
    try {
        accepted = delegate->listenerShouldAcceptNewConnection(listener, opened.connection);
    } catch (...) {
        accepted = false;
    }
    if (!accepted) opened.connection->invalidate();
}

Listener::Impl::Impl(UniqueFd listeningSocket) : _shared(std::make_shared<Shared>()) {
    _shared->poller = UniqueFd(::epoll_create1(EPOLL_CLOEXEC));
    _shared->wakeUp = UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    _shared->invalid =
        !_shared->poller || !_shared->wakeUp || !_shared->watch(_shared->wakeUp.get(), kWakeUp);
    if (!listeningSocket) return;
    _shared->servesOthers = true;
    // Another process may take a connection between the notice and the accept.
    const int flags = ::fcntl(listeningSocket.get(), F_GETFL);
    (void)::fcntl(listeningSocket.get(), F_SETFL, flags | O_NONBLOCK);
    if (!_shared->watch(listeningSocket.get(), kListeningSocket)) _shared->invalid = true;
    _shared->listeningSocket = std::move(listeningSocket);
}

void Listener::Impl::setDelegate(ListenerDelegate* delegate) {
    const std::lock_guard lock(_shared->mutex);
    _shared->delegate = delegate;
}

void Listener::Impl::resume() {
    const std::lock_guard lock(_shared->mutex);
    if (_shared->invalid) return;
    _shared->resumed = true;
    _shared->wake();
    if (_thread.joinable()) return;
    try {
        _thread = std::thread([shared = _shared, owner = _owner] { shared->run(*owner); });
    } catch (const std::system_error&) {
        _shared->invalid = true;
    }
}

void Listener::Impl::suspend() {
    const std::lock_guard lock(_shared->mutex);
    _shared->resumed = false;
    _shared->wake();
}

void Listener::Impl::invalidate() {
    const std::lock_guard lock(_shared->mutex);
    _shared->invalid = true;
    _shared->listeningSocket.reset();
    _shared->endpoints.clear();
    if (_shared->wakeUp) _shared->wake();
}

void Listener::Impl::join() {
    if (!_thread.joinable()) return;
    if (_thread.get_id() == std::this_thread::get_id()) {
        _thread.detach();
    } else {
        _thread.join();
    }
}

EndpointRef Listener::Impl::endpoint(const PeerIdentity* owner) {
    Shared& shared = *_shared;
    EndpointHalf half;
    if (owner != nullptr) {
        half.charge = QuotaCharge(shared.quotas.quotasForUser(owner->uid), Resource::endpoints);
        if (!half.charge.setAmount(1)) return {};
    }
    SocketPair pair = makeSocketPair(SOCK_SEQPACKET);
    if (!pair.first || !attestOffers(pair.first.get())) return {};
    half.socket = std::move(pair.first);
    EndpointRef given{std::make_shared<const UniqueFd>(std::move(pair.second))};
    const std::lock_guard lock(shared.mutex);
    if (shared.invalid) return {};
    const SourceId source = shared.nextEndpoint++;
    if (!shared.watch(half.socket.get(), source)) return {};
    shared.endpoints.emplace(source, std::move(half));
    return given;
}

Listener::Listener(std::unique_ptr<Impl> impl) : _impl(std::move(impl)) {
    _impl->attach(this);
}

Listener::~Listener() {
    _impl->invalidate();
    _impl->join();
}

std::unique_ptr<Listener> Listener::listenerAtSocket(UniqueFd listeningSocket) {
    return std::unique_ptr<Listener>(
        new Listener(std::make_unique<Impl>(std::move(listeningSocket))));
}

std::unique_ptr<Listener> Listener::anonymousListener() {
    return std::unique_ptr<Listener>(new Listener(std::make_unique<Impl>(UniqueFd())));
}

void Listener::setDelegate(ListenerDelegate* delegate) {
    _impl->setDelegate(delegate);
}
void Listener::resume() {
    _impl->resume();
}
void Listener::suspend() {
    _impl->suspend();
}
void Listener::invalidate() {
    _impl->invalidate();
}
EndpointRef Listener::endpoint(const PeerIdentity* owner) {
    return _impl->endpoint(owner);
}

}  // namespace corvalen
