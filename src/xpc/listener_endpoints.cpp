// SPDX-License-Identifier: MIT
// A listener's endpoints, and the threads of their owners.
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "xpc/endpoint.hpp"
#include "xpc/listener_state.hpp"
#include "xpc/socket_io.hpp"

namespace corvalen {

EndpointRef ListenerState::addEndpoint(const PeerIdentity* owner) {
    const auto half = std::make_shared<EndpointHalf>();
    if (owner != nullptr) {
        half->owner = owner->uid;
        half->charge = QuotaCharge(quotas->quotasForUser(owner->uid), Resource::endpoints);
        if (!half->charge.setAmount(1)) return {};
    }
    SocketPair pair = makeSocketPair(SOCK_SEQPACKET);
    if (!pair.first || !enableSenderCredentials(pair.first.get())) return {};
    half->socket = std::move(pair.first);
    EndpointRef clientHalf{std::make_shared<const UniqueFd>(std::move(pair.second))};
    const std::lock_guard lock(mutex);
    if (invalid) return {};
    const SourceId source = nextEndpoint++;
    if (!watch(half->socket.get(), source)) return {};
    endpoints.emplace(source, half);
    return clientHalf;
}

/// Call with the lock held.
void ListenerState::invalidateEndpoints() {
    for (const auto& [source, half] : endpoints) {
        // Senders get EPIPE at once.
        (void)::shutdown(half->socket.get(), SHUT_RDWR);
        // Otherwise the thread that is using the half closes it.
        if (half.use_count() == 1) closeElsewhere(std::move(half->socket));
    }
    endpoints.clear();
}

/// Closes what is not a connection, which may block.
std::optional<Arrival> ListenerState::takeFromEndpoint(EndpointEvent event) {
    const std::shared_ptr<EndpointHalf> half = activeHalf(event.source);
    if (!half) return std::nullopt;
    OfferedConnection offered;
    const OfferStatus status = takeOffer(half->socket.get(), offered);
    const bool nothingLeft = status == OfferStatus::none || status == OfferStatus::empty;
    if (nothingLeft && (event.events & (EPOLLHUP | EPOLLRDHUP | EPOLLERR)) != 0) {
        const std::lock_guard lock(mutex);
        endpoints.erase(event.source);
        return std::nullopt;
    }
    rearm(*half, event.source);
    if (status != OfferStatus::taken) return std::nullopt;
    // Refuse halves that this process made, which clients may hold too, and halves whose makers
    // have no pid in this namespace (pid_namespaces(7)), since those cannot be told apart.
    const bool isKnown = offered.peer.pid > 0 && offered.peer.pid != ::getpid();
    if (isService && !isKnown) return std::nullopt;
    return Arrival{ForeignSocket(std::move(offered.half)), std::move(offered.peer)};
}

/// Returns null if nothing may be received at the endpoint now.
std::shared_ptr<EndpointHalf> ListenerState::activeHalf(SourceId source) {
    const std::lock_guard lock(mutex);
    const auto endpoint = endpoints.find(source);
    if (invalid || endpoint == endpoints.end()) return nullptr;
    if (resumed) return endpoint->second;
    rearm(*endpoint->second, source);
    return nullptr;
}

void ListenerState::rearm(const EndpointHalf& half, SourceId source) const noexcept {
    if (isService) (void)watch(half.socket.get(), source, EPOLL_CTL_MOD);
}

/// Queues the event for its owner's thread, and starts that thread if there is none.
void ListenerState::queueForOwner(EndpointEvent event) {
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

/// An owner's thread; it ends when no event waits.
void ListenerState::runForOwner(uid_t owner) {
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

}  // namespace corvalen
