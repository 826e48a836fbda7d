// SPDX-License-Identifier: MIT
// The internals of a listener: what its threads share, and how they accept connections.
#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "xpc/connection_state.hpp"
#include "xpc/listener.hpp"
#include "xpc/socket_io.hpp"

namespace corvalen {

/// What a listener waits for, as stored in its epoll instance.
using SourceId = std::uint64_t;
inline constexpr SourceId kWakeUp = 0;
inline constexpr SourceId kListeningSocket = 1;
inline constexpr SourceId kFirstEndpoint = 2;

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

/// State of the listener's threads; outlives a listener that its delegate destroys.
struct ListenerState : std::enable_shared_from_this<ListenerState> {
    /// Without a listening socket the listener is anonymous.
    ListenerState(UniqueFd socket, std::shared_ptr<UserQuotaTable> userQuotas);

    // The listener's thread: listener.cpp.
    void run();
    bool waitUntilActive();
    void handle(const epoll_event& event);
    std::optional<Arrival> takeFromSocket();
    bool watch(Descriptor descriptor, SourceId source,
               int operation = EPOLL_CTL_ADD) const noexcept;
    void wake() const noexcept;

    // Offering connections to the delegate, on any thread of the listener: listener.cpp.
    void offer(Arrival arrival);
    bool beginOffer();
    void endOffer();
    /// Returns true if the delegate runs on the calling thread.
    [[nodiscard]] bool isOffering() const noexcept;
    void remember(const Connection& connection);
    [[nodiscard]] bool isBusy(const Connection* except) const;

    // Endpoints and the threads of their owners: endpoint.cpp.
    EndpointRef addEndpoint(const PeerIdentity* owner);
    void invalidateEndpoints();
    std::optional<Arrival> takeFromEndpoint(EndpointEvent event);
    std::shared_ptr<EndpointHalf> activeHalf(SourceId source);
    void rearm(const EndpointHalf& half, SourceId source) const noexcept;
    void queueForOwner(EndpointEvent event);
    void runForOwner(uid_t owner);

    std::mutex mutex;
    std::condition_variable offerEnded;
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
    /// Running calls of the delegate.
    int runningOffers = 0;
    /// A connection is accepted but not in `served` yet.
    std::atomic<bool> accepting{false};
    /// The listener has a service socket, which untrusted clients reach.
    bool isService = false;
    bool resumed = false;
    bool invalid = false;
    /// Listener's thread only: the last accept failed for lack of descriptors or memory.
    bool outOfResources = false;
};

}  // namespace corvalen
