// SPDX-License-Identifier: MIT
// Both ends of an endpoint: offering a connection, and taking an offered one.
#pragma once

#include <cstdint>

#include "corvalen/value.hpp"
#include "platform/authorization/peer_identity.hpp"

namespace corvalen {

/// Offers one half of a stream pair to the listener behind an endpoint; borrows `half`. Does not
/// block. Returns 0 or an errno value: EAGAIN if the listener's queue is full, another one if there
/// is no listener.
[[nodiscard]] int offerConnection(const EndpointRef& endpoint, int half) noexcept;

/// A connection that arrived at the listener's half of an endpoint.
struct OfferedConnection {
    UniqueFd half;
    PeerIdentity peer;
};

/// `none`: no packet waits. `empty`: a hang-up, or a packet without data and descriptors.
enum class OfferStatus : std::uint8_t { taken, malformed, none, empty };

/// Makes the kernel add the sender's credentials to each offer (unix(7), SO_PASSCRED). Returns
/// false on failure.
bool enableSenderCredentials(int listenerHalf) noexcept;

/// Takes the next offer out of the queue. `malformed`: it breaks the protocol; its descriptors are
/// closed. A half made by another process than its sender is malformed too: its peer identity would
/// be the maker's.
[[nodiscard]] OfferStatus takeOffer(int listenerHalf, OfferedConnection& offered);

}  // namespace corvalen
