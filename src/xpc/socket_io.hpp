// SPDX-License-Identifier: MIT
// System calls on local sockets, for bytes and descriptors (unix(7), cmsg(3)).
//
// The peer may share a socket's open file description, so nothing relies on O_NONBLOCK or on socket
// options: calls that must not block pass MSG_DONTWAIT.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "corvalen/value.hpp"
#include "foundation/borrowed_descriptor.hpp"
#include "foundation/result.hpp"
#include "platform/authorization/identity.hpp"

namespace corvalen {

using Clock = std::chrono::steady_clock;

enum class Waiting : bool { no, yes };

struct Received {
    /// 0 if the other side has ended.
    std::size_t size = 0;
    /// Descriptors were lost: more than a message may have, or no free ones in this process.
    bool descriptorsLost = false;
};

/// Receives once. Appends received descriptors, close-on-exec, to `descriptors` even if others were
/// lost. Even `Waiting::yes` may return EAGAIN; poll then. Sets `*sender` if the socket has
/// SO_PASSCRED. Throws std::bad_alloc.
[[nodiscard]] Result<Received> receive(Descriptor socket, std::span<char> buffer,
                                       std::vector<UniqueFd>& descriptors,
                                       Waiting waiting = Waiting::no,
                                       std::optional<ucred>* sender = nullptr);

/// Sends as much as possible without blocking, descriptors with the first byte; never raises
/// SIGPIPE. Returns the number of bytes sent.
[[nodiscard]] Result<std::size_t> sendSome(Descriptor socket, std::string_view bytes,
                                           std::span<const Descriptor> descriptors) noexcept;

/// Waits for `events` on a socket; a hang-up counts. Returns false once the deadline has passed.
bool waitFor(Descriptor socket, short events, std::optional<Clock::time_point> deadline) noexcept;

/// Two connected halves; both empty if the descriptors are used up.
struct SocketPair {
    UniqueFd first;
    UniqueFd second;
};
[[nodiscard]] SocketPair makeSocketPair(int type);

/// Returns true if `descriptor`, which may be of any kind, is one half of a local socket pair of
/// that type: connected, and neither end has a name.
[[nodiscard]] bool isHalfOfSocketPair(Descriptor descriptor, int type) noexcept;

/// Closes a local socket on another thread, soon. For threads that serve several clients: the last
/// close of a socket also closes the descriptors in its queue, and one of them may linger for hours
/// (socket(7), SO_LINGER). The closing thread does not linger either. Any thread.
void closeElsewhere(UniqueFd socket) noexcept;

// Both ends of an endpoint: offering a connection, and taking an offered one (endpoint.cpp).

/// Offers one half of a stream pair to the listener behind an endpoint; borrows `half`. Does not
/// block. EAGAIN if the listener's queue is full, another one if there
/// is no listener.
[[nodiscard]] Result<> offerConnection(const EndpointRef& endpoint, Descriptor half) noexcept;

/// A connection that arrived at the listener's half of an endpoint.
struct OfferedConnection {
    UniqueFd half;
    PeerIdentity peer;
};

/// `none`: no packet waits. `empty`: a hang-up, or a packet without data and descriptors.
enum class OfferStatus : std::uint8_t { taken, malformed, none, empty };

/// Makes the kernel add the sender's credentials to each offer (unix(7), SO_PASSCRED). Returns
/// false on failure.
bool enableSenderCredentials(Descriptor listenerHalf) noexcept;

/// Takes the next offer out of the queue. `malformed`: it breaks the protocol; its descriptors are
/// closed. A half made by another process than its sender is malformed too: its peer identity would
/// be the maker's.
[[nodiscard]] OfferStatus takeOffer(Descriptor listenerHalf, OfferedConnection& offered);

}  // namespace corvalen
