// SPDX-License-Identifier: MIT
#include "xpc/listener.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "xpc/connection_state.hpp"
#include "xpc/endpoint.hpp"
#include "xpc/socket_closer.hpp"
#include "xpc/socket_io.hpp"

namespace corvalen {

namespace {

using SourceId = std::uint64_t;
constexpr SourceId kWakeUp = 0;
constexpr SourceId kListeningSocket = 1;
constexpr SourceId kFirstEndpoint = 2;

// Milliseconds. A connection that cannot be accepted for lack of descriptors stays in the queue;
// the pause prevents a busy loop.
constexpr int kPauseWithoutDescriptors = 100;

/// The socket of a client not yet accepted; never closed on the receiving thread.
class ForeignSocket {
  public:
    explicit ForeignSocket(UniqueFd socket) noexcept : _socket(std::move(socket)) {}
    ForeignSocket(ForeignSocket&&) noexcept = default;
    ForeignSocket& operator=(ForeignSocket&& other) noexcept {
        std::swap(_socket, other._socket);
        return *this;
    }
    ForeignSocket(const ForeignSocket&) = delete;
    ForeignSocket& operator=(const ForeignSocket&) = delete;
    ~ForeignSocket() { closeElsewhere(std::move(_socket)); }

    [[nodiscard]] UniqueFd& socket() noexcept { return _socket; }

  private:
    UniqueFd _socket;
};

/// A new connection, not yet offered to the delegate.
struct Arrival {
    ForeignSocket socket;
    PeerIdentity peer;
};

}  // namespace

class Listener::Impl {
  public:
    Impl(UniqueFd listeningSocket, std::shared_ptr<UserQuotaTable> quotas);

    void attach(Listener* owner) noexcept;
    void setDelegate(ListenerDelegate* delegate);
    void resume();
    void suspend();
    void invalidate();
    /// Waits for running calls of the delegate, unless the delegate calls this.
    void join();
    EndpointRef endpoint(const PeerIdentity* owner);
    [[nodiscard]] bool hasBusyConnection() const;
    [[nodiscard]] bool suspendIfIdle(const Connection* except,
                                     const std::function<bool()>& condition);

  private:
    struct Shared;

    std::shared_ptr<Shared> _shared;
    std::thread _thread;
};

namespace {

/// The listener's half of an endpoint, and its owner's quota charge.
struct EndpointHalf {
    UniqueFd socket;
    uid_t owner = 0;
    QuotaCharge charge;
};

/// A packet or a hang-up at an endpoint.
struct EndpointEvent {
    SourceId source = 0;
    std::uint32_t events = 0;
};

/// Accepted connections; they keep themselves alive.
using ServedConnections = std::vector<std::weak_ptr<ConnectionState>>;

/// The listener whose delegate runs on the calling thread.
thread_local const void* offeringListener = nullptr;

}  // namespace

/// State of the listener's threads; outlives a listener that its delegate destroys.
struct Listener::Impl::Shared : std::enable_shared_from_this<Shared> {
    std::mutex mutex;
    std::condition_variable noOffers;
    UniqueFd listeningSocket;
    UniqueFd poller;
    UniqueFd wakeUp;
    std::map<SourceId, std::shared_ptr<EndpointHalf>> endpoints;
    SourceId nextEndpoint = kFirstEndpoint;
    /// Queued events by owner; an owner without a thread has no entry.
    std::map<uid_t, std::deque<EndpointEvent>> ownerThreads;
    ServedConnections served;
    std::shared_ptr<UserQuotaTable> quotas;
    Listener* listener = nullptr;
    ListenerDelegate* delegate = nullptr;
    int offers = 0;
    /// A connection is accepted but not in `served` yet.
    std::atomic<bool> accepting{false};
    bool servesOthers = false;
    bool resumed = false;
    bool invalid = false;
    /// Listener's thread only: the last accept failed for lack of descriptors or memory.
    bool outOfRoom = false;

    bool watch(int descriptor, SourceId source, int operation = EPOLL_CTL_ADD) const noexcept;
    void wake() const noexcept;
    void run();
    bool waitUntilActive();
    void handle(const epoll_event& event);
    std::optional<Arrival> takeFromSocket();
    std::optional<Arrival> takeFromEndpoint(EndpointEvent event);
    void handToOwner(EndpointEvent event);
    void runForOwner(uid_t owner);
    void offer(Arrival arrival);
    bool beginOffer();
    void endOffer();
    void remember(const Connection& connection);
    [[nodiscard]] bool isBusy(const Connection* except) const;
};

/// Endpoints of a service are one-shot; the thread that handled an event rearms them.
bool Listener::Impl::Shared::watch(int descriptor, SourceId source, int operation) const noexcept {
    epoll_event event{};
    event.events = EPOLLIN | EPOLLRDHUP;
    if (servesOthers && source >= kFirstEndpoint) event.events |= EPOLLONESHOT;
    event.data.u64 = source;
    return ::epoll_ctl(poller.get(), operation, descriptor, &event) == 0;
}

void Listener::Impl::Shared::wake() const noexcept {
    const std::uint64_t one = 1;
    // write(2) fails only if the counter is full, and then the thread is awake.
    (void)!::write(wakeUp.get(), &one, sizeof one);
}

/// Waits while the listener is suspended. Returns false once it is invalid.
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

void Listener::Impl::Shared::run() {
    std::array<epoll_event, 16> events{};
    while (waitUntilActive()) {
        const int count =
            ::epoll_wait(poller.get(), events.data(), static_cast<int>(events.size()), -1);
        outOfRoom = false;
        for (int i = 0; i < count; ++i) {
            try {
                handle(events[static_cast<std::size_t>(i)]);
            } catch (...) {
                // Out of memory for one connection: it is closed, the others continue.
                accepting = false;
            }
        }
        if (outOfRoom) (void)::poll(nullptr, 0, kPauseWithoutDescriptors);
    }
}

void Listener::Impl::Shared::handle(const epoll_event& event) {
    const EndpointEvent endpointEvent{event.data.u64, event.events};
    std::optional<Arrival> arrival;
    if (event.data.u64 == kListeningSocket) {
        arrival = takeFromSocket();
    } else if (event.data.u64 >= kFirstEndpoint) {
        if (servesOthers) return handToOwner(endpointEvent);
        arrival = takeFromEndpoint(endpointEvent);
    }
    if (arrival) offer(std::move(*arrival));
    accepting = false;
}

std::optional<Arrival> Listener::Impl::Shared::takeFromSocket() {
    UniqueFd socket;
    {
        const std::lock_guard lock(mutex);
        if (!resumed || invalid) return std::nullopt;
        accepting = true;
        socket.reset(::accept4(listeningSocket.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }
    if (!socket) {
        outOfRoom = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
        return std::nullopt;
    }
    ForeignSocket foreign(std::move(socket));
    PeerIdentity peer = peerIdentityOfSocket(foreign.socket().get());
    return Arrival{std::move(foreign), std::move(peer)};
}

/// Closes what is not a connection, which may block.
std::optional<Arrival> Listener::Impl::Shared::takeFromEndpoint(EndpointEvent event) {
    std::shared_ptr<EndpointHalf> half;
    {
        const std::lock_guard lock(mutex);
        const auto endpoint = endpoints.find(event.source);
        if (invalid || endpoint == endpoints.end()) return std::nullopt;
        half = endpoint->second;
        if (!resumed) {
            if (servesOthers) (void)watch(half->socket.get(), event.source, EPOLL_CTL_MOD);
            return std::nullopt;
        }
    }
    OfferedConnection offered;
    const OfferStatus status = takeOffer(half->socket.get(), offered);
    const bool nothingLeft = status == OfferStatus::nothing || status == OfferStatus::empty;
    if (nothingLeft && (event.events & (EPOLLHUP | EPOLLRDHUP | EPOLLERR)) != 0) {
        const std::lock_guard lock(mutex);
        endpoints.erase(event.source);
        return std::nullopt;
    }
    if (servesOthers) (void)watch(half->socket.get(), event.source, EPOLL_CTL_MOD);
    if (status != OfferStatus::taken) return std::nullopt;
    // Refuse halves that this process made, which clients may hold too, and halves whose makers
    // have no pid in this namespace (pid_namespaces(7)), since those cannot be told apart.
    const bool isKnown = offered.peer.pid > 0 && offered.peer.pid != ::getpid();
    if (servesOthers && !isKnown) return std::nullopt;
    return Arrival{ForeignSocket(std::move(offered.half)), std::move(offered.peer)};
}

void Listener::Impl::Shared::handToOwner(EndpointEvent event) {
    const std::lock_guard lock(mutex);
    const auto endpoint = endpoints.find(event.source);
    if (endpoint == endpoints.end()) return;
    const uid_t owner = endpoint->second->owner;
    const auto [thread, isNew] = ownerThreads.try_emplace(owner);
    try {
        thread->second.push_back(event);
        if (isNew)
            std::thread([self = shared_from_this(), owner] { self->runForOwner(owner); }).detach();
    } catch (...) {
        // Without a thread the endpoint is given up: the listener's thread must not block.
        if (isNew) ownerThreads.erase(thread);
        closeElsewhere(std::move(endpoint->second->socket));
        endpoints.erase(endpoint);
    }
}

void Listener::Impl::Shared::runForOwner(uid_t owner) {
    for (;;) {
        EndpointEvent event;
        {
            const std::lock_guard lock(mutex);
            const auto thread = ownerThreads.find(owner);
            if (invalid || thread->second.empty()) {
                ownerThreads.erase(thread);
                return;
            }
            event = thread->second.front();
            thread->second.pop_front();
        }
        try {
            std::optional<Arrival> arrival = takeFromEndpoint(event);
            if (arrival) offer(std::move(*arrival));
        } catch (...) {
            // Out of memory for one connection: it is closed, the others continue.
        }
    }
}

/// Returns false if the delegate must not be called any more.
bool Listener::Impl::Shared::beginOffer() {
    const std::lock_guard lock(mutex);
    if (invalid || delegate == nullptr) return false;
    ++offers;
    offeringListener = this;
    return true;
}

void Listener::Impl::Shared::endOffer() {
    offeringListener = nullptr;
    const std::lock_guard lock(mutex);
    --offers;
    noOffers.notify_all();
}

void Listener::Impl::Shared::remember(const Connection& connection) {
    const std::lock_guard lock(mutex);
    if (served.size() == served.capacity())
        std::erase_if(served, [](const auto& each) { return each.expired(); });
    served.push_back(connection.state().weak_from_this());
}

/// Call with the lock held.
bool Listener::Impl::Shared::isBusy(const Connection* except) const {
    if (accepting || !ownerThreads.empty()) return true;
    // A client that waits to be accepted may have sent a request.
    if (listeningSocket && waitFor(listeningSocket.get(), POLLIN, Clock::now())) return true;
    const ConnectionState* ignored = except != nullptr ? &except->state() : nullptr;
    return std::any_of(served.begin(), served.end(), [ignored](const auto& each) {
        const std::shared_ptr<ConnectionState> state = each.lock();
        return state && state.get() != ignored && state->isBusy();
    });
}

void Listener::Impl::Shared::offer(Arrival arrival) {
    if (arrival.peer.uid == static_cast<uid_t>(-1)) return;
    ConnectionOptions options;
    std::shared_ptr<UserQuotas> userQuotas;
    if (servesOthers) {
        options.sendTimeout = wire::kAnswerTimeout;
        userQuotas = quotas->quotasForUser(arrival.peer.uid);
    }
    const std::shared_ptr<Connection> connection =
        openConnection(std::move(arrival.socket.socket()), std::move(arrival.peer),
                       std::move(userQuotas), options);
    if (!connection || !beginOffer()) return;
    bool accepted = false;
    try {
        if (servesOthers) remember(*connection);
        connection->state().holdUntilEnded(connection);
        accepted = delegate->listenerShouldAcceptNewConnection(*listener, connection);
    } catch (...) {
        accepted = false;
    }
    endOffer();
    if (!accepted) connection->invalidate();
    closeElsewhere(connection->state().takeUnservedSocket());
}

Listener::Impl::Impl(UniqueFd listeningSocket, std::shared_ptr<UserQuotaTable> quotas)
    : _shared(std::make_shared<Shared>()) {
    _shared->quotas = std::move(quotas);
    _shared->poller = UniqueFd(::epoll_create1(EPOLL_CLOEXEC));
    _shared->wakeUp = UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    _shared->invalid =
        !_shared->poller || !_shared->wakeUp || !_shared->watch(_shared->wakeUp.get(), kWakeUp);
    if (!listeningSocket) return;
    _shared->servesOthers = true;
    // Another process may accept the connection between epoll_wait(2) and accept4(2).
    const int flags = ::fcntl(listeningSocket.get(), F_GETFL);
    (void)::fcntl(listeningSocket.get(), F_SETFL, flags | O_NONBLOCK);
    if (!_shared->watch(listeningSocket.get(), kListeningSocket)) _shared->invalid = true;
    _shared->listeningSocket = std::move(listeningSocket);
}

void Listener::Impl::attach(Listener* owner) noexcept {
    _shared->listener = owner;
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
        _thread = std::thread([shared = _shared] { shared->run(); });
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
    closeElsewhere(std::move(_shared->listeningSocket));
    for (const auto& [source, half] : _shared->endpoints) {
        // Senders get EPIPE at once.
        (void)::shutdown(half->socket.get(), SHUT_RDWR);
        if (half.use_count() == 1) closeElsewhere(std::move(half->socket));
    }
    _shared->endpoints.clear();
    if (_shared->wakeUp) _shared->wake();
}

void Listener::Impl::join() {
    const bool byDelegate = offeringListener == _shared.get();
    if (!byDelegate) {
        std::unique_lock lock(_shared->mutex);
        _shared->noOffers.wait(lock, [this] { return _shared->offers == 0; });
    }
    if (!_thread.joinable()) return;
    if (_thread.get_id() == std::this_thread::get_id()) {
        _thread.detach();
    } else {
        _thread.join();
    }
}

bool Listener::Impl::hasBusyConnection() const {
    const std::lock_guard lock(_shared->mutex);
    return _shared->isBusy(nullptr);
}

bool Listener::Impl::suspendIfIdle(const Connection* except,
                                   const std::function<bool()>& condition) {
    const std::lock_guard lock(_shared->mutex);
    if (_shared->isBusy(except) || !condition()) return false;
    _shared->resumed = false;
    return true;
}

EndpointRef Listener::Impl::endpoint(const PeerIdentity* owner) {
    Shared& shared = *_shared;
    const auto half = std::make_shared<EndpointHalf>();
    if (owner != nullptr) {
        half->owner = owner->uid;
        half->charge = QuotaCharge(shared.quotas->quotasForUser(owner->uid), Resource::endpoints);
        if (!half->charge.setAmount(1)) return {};
    }
    SocketPair pair = makeSocketPair(SOCK_SEQPACKET);
    if (!pair.first || !attestOffers(pair.first.get())) return {};
    half->socket = std::move(pair.first);
    EndpointRef given{std::make_shared<const UniqueFd>(std::move(pair.second))};
    const std::lock_guard lock(shared.mutex);
    if (shared.invalid) return {};
    const SourceId source = shared.nextEndpoint++;
    if (!shared.watch(half->socket.get(), source)) return {};
    shared.endpoints.emplace(source, half);
    return given;
}

Listener::Listener(std::unique_ptr<Impl> impl) : _impl(std::move(impl)) {
    _impl->attach(this);
}

Listener::~Listener() {
    _impl->invalidate();
    _impl->join();
}

std::unique_ptr<Listener> Listener::listenerAtSocket(UniqueFd listeningSocket,
                                                     std::shared_ptr<UserQuotaTable> quotas) {
    return std::unique_ptr<Listener>(
        new Listener(std::make_unique<Impl>(std::move(listeningSocket), std::move(quotas))));
}

std::unique_ptr<Listener> Listener::anonymousListener() {
    return std::unique_ptr<Listener>(
        new Listener(std::make_unique<Impl>(UniqueFd(), std::make_shared<UserQuotaTable>())));
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
bool Listener::hasBusyConnection() const {
    return _impl->hasBusyConnection();
}
bool Listener::suspendIfIdle(const Connection* except, const std::function<bool()>& condition) {
    return _impl->suspendIfIdle(except, condition);
}

}  // namespace corvalen
