// SPDX-License-Identifier: MIT
// Both ends of an endpoint: opening a connection through it, and taking one that was opened.
#pragma once

#include <cstdint>

#include "corvalen/value.hpp"
#include "platform/peer_identity.hpp"

namespace corvalen {

/// Offers one half of a stream pair to the listener behind an endpoint, without waiting. 0, or the
/// errno: EAGAIN when the listener's queue is full, another one when there is no listener.
[[nodiscard]] int offerConnection(const EndpointRef& endpoint, int half) noexcept;

/// A connection that arrived at the listener's half of an endpoint.
struct OfferedConnection {
    UniqueFd half;
    PeerIdentity peer;
};

/// `empty` is what a hang-up looks like, and a packet without anything in it.
enum class OfferStatus : std::uint8_t { taken, junk, nothing, empty };

/// Prepares the listener's half: the kernel shall say who offers.
bool attestOffers(int listenerHalf) noexcept;

/// Takes the next offer out of the queue. `junk` is one that breaks the protocol; what came with
/// it has been closed. A half that was made by another process than the one that offers it is
/// junk too: its maker's identity would be taken for the offerer's.
[[nodiscard]] OfferStatus takeOffer(int listenerHalf, OfferedConnection& offered);

}  // namespace corvalen
