// SPDX-License-Identifier: MIT
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <optional>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "xpc/listener_state.hpp"
#include "xpc/socket_io.hpp"

namespace corvalen {
namespace {

constexpr std::string_view kOffer{"\0", 1};

/// A received packet; `sender` comes from SCM_CREDENTIALS (unix(7)).
struct Packet {
    std::size_t size = 0;
    char firstByte = 0;
    std::optional<ucred> sender;
    std::vector<UniqueFd> descriptors;
    bool whole = true;
};

Result<Packet> receivePacket(Descriptor socket) {
    Packet packet;
    std::array<char, 2> buffer{};
    const auto received = receive(socket, buffer, packet.descriptors, Waiting::no, &packet.sender);
    if (!received) return failure(received.error());
    packet.size = received->size;
    packet.firstByte = buffer[0];
    packet.whole = !received->descriptorsLost;
    return packet;
}

}  // namespace

Result<> offerConnection(const EndpointRef& endpoint, Descriptor half) noexcept {
    if (!endpoint.descriptor) return failure(ENOTCONN);
    const Descriptor socket = *endpoint.descriptor;
    if (!isHalfOfSocketPair(socket, SOCK_SEQPACKET)) return failure(ENOTSOCK);
    const auto sent = sendSome(socket, kOffer, std::span(&half, 1));
    if (!sent) return failure(sent.error());
    return {};
}

bool enableSenderCredentials(Descriptor listenerHalf) noexcept {
    const int yes = 1;
    return ::setsockopt(listenerHalf.get(), SOL_SOCKET, SO_PASSCRED, &yes, sizeof yes) == 0;
}

OfferStatus takeOffer(Descriptor listenerHalf, OfferedConnection& offered) {
    Result<Packet> packet = receivePacket(listenerHalf);
    if (!packet) return OfferStatus::none;
    if (packet->size == 0 && packet->descriptors.empty()) return OfferStatus::empty;
    const bool isOffer = packet->size == 1 && packet->firstByte == kOffer[0] && packet->whole &&
                         packet->descriptors.size() == 1 && packet->sender;
    if (!isOffer || !isHalfOfSocketPair(packet->descriptors[0], SOCK_STREAM)) {
        return OfferStatus::malformed;
    }
    offered.half = std::move(packet->descriptors[0]);
    offered.peer = peerIdentityOfSocket(offered.half);
    const bool ownHalf =
        offered.peer.pid == packet->sender->pid && offered.peer.uid == packet->sender->uid;
    return ownHalf ? OfferStatus::taken : OfferStatus::malformed;
}

EndpointRef ListenerState::addEndpoint(const PeerIdentity* owner) {
    const auto half = std::make_shared<EndpointHalf>();
    if (owner != nullptr) {
        half->owner = owner->uid;
        half->charge = QuotaCharge(quotas->quotasForUser(owner->uid), Resource::endpoints);
        if (!half->charge.setAmount(1)) return {};
    }
    SocketPair pair = makeSocketPair(SOCK_SEQPACKET);
    if (!pair.first || !enableSenderCredentials(pair.first)) return {};
    half->socket = std::move(pair.first);
    EndpointRef clientHalf{std::make_shared<const UniqueFd>(std::move(pair.second))};
    const std::lock_guard lock(mutex);
    if (invalid) return {};
    const SourceId source = nextEndpoint++;
    if (!watch(half->socket, source)) return {};
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
    const OfferStatus status = takeOffer(half->socket, offered);
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
    if (isService) (void)watch(half.socket, source, EPOLL_CTL_MOD);
}

/// Queues the event for its owner's thread, and starts the thread if it does not run.
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
