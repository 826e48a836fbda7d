// SPDX-License-Identifier: MIT
#include "xpc/endpoint.hpp"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "xpc/socket_io.hpp"

namespace corvalen {

namespace {

constexpr std::string_view kOffer{"\0", 1};

/// A received packet; `sender` comes from SCM_CREDENTIALS (unix(7)).
struct Packet {
    ssize_t size = -1;
    char firstByte = 0;
    std::optional<ucred> sender;
    std::vector<UniqueFd> descriptors;
    bool whole = true;
};

Packet receivePacket(int socket) {
    Packet packet;
    std::array<char, 2> buffer{};
    const Received received =
        receive(socket, buffer, packet.descriptors, Waiting::no, &packet.sender);
    packet.size = received.size;
    packet.firstByte = buffer[0];
    packet.whole = !received.descriptorsLost;
    return packet;
}

}  // namespace

int offerConnection(const EndpointRef& endpoint, int half) noexcept {
    if (!endpoint.descriptor) return ENOTCONN;
    const int socket = endpoint.descriptor->get();
    if (!isHalfOfSocketPair(socket, SOCK_SEQPACKET)) return ENOTSOCK;
    const ssize_t sent = sendSome(socket, kOffer, std::span(&half, 1));
    return sent < 0 ? static_cast<int>(-sent) : 0;
}

bool enableSenderCredentials(int listenerHalf) noexcept {
    const int yes = 1;
    return ::setsockopt(listenerHalf, SOL_SOCKET, SO_PASSCRED, &yes, sizeof yes) == 0;
}

OfferStatus takeOffer(int listenerHalf, OfferedConnection& offered) {
    Packet packet = receivePacket(listenerHalf);
    if (packet.size < 0) return OfferStatus::none;
    if (packet.size == 0 && packet.descriptors.empty()) return OfferStatus::empty;
    const bool isOffer = packet.size == 1 && packet.firstByte == kOffer[0] && packet.whole &&
                         packet.descriptors.size() == 1 && packet.sender;
    if (!isOffer || !isHalfOfSocketPair(packet.descriptors[0].get(), SOCK_STREAM)) {
        return OfferStatus::malformed;
    }
    offered.half = std::move(packet.descriptors[0]);
    offered.peer = peerIdentityOfSocket(offered.half.get());
    const bool ownHalf =
        offered.peer.pid == packet.sender->pid && offered.peer.uid == packet.sender->uid;
    return ownHalf ? OfferStatus::taken : OfferStatus::malformed;
}

}  // namespace corvalen
