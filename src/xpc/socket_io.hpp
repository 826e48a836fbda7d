// SPDX-License-Identifier: MIT
// System calls on local sockets: bytes and descriptors in and out. Rules from unix(7), cmsg(3).
//
// The other side of a socket may share its open file description, so neither O_NONBLOCK nor any
// socket option is relied on: a call that must not wait says so itself.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "corvalen/descriptor.hpp"

namespace corvalen {

using Clock = std::chrono::steady_clock;

enum class Waiting : bool { no, yes };

struct Received {
    /// As recv(2) gives it; with -1 the errno is in `errnoValue`.
    ssize_t size = -1;
    int errnoValue = 0;
    /// Descriptors were lost because there were more than a message may have, or because this
    /// process has no room for them.
    bool descriptorsLost = false;
};

/// Receives once. Descriptors that come along are close-on-exec and appended to `descriptors`,
/// whatever else is wrong. With `Waiting::yes` it may still give EAGAIN; poll then. `*sender` is
/// filled when the socket attests senders. Throws std::bad_alloc.
Received receive(int socket, std::span<char> room, std::vector<UniqueFd>& descriptors,
                 Waiting waiting = Waiting::no, std::optional<ucred>* sender = nullptr);

/// Sends as much as goes without waiting, descriptors with the first byte; never raises SIGPIPE.
/// The bytes taken, or minus the errno.
ssize_t sendSome(int socket, std::string_view bytes, std::span<const int> descriptors) noexcept;

/// Waits for `events` on a socket; a hang-up counts. False when the time is over.
bool waitFor(int socket, short events, std::optional<Clock::time_point> deadline) noexcept;

/// Two connected halves. Both empty when descriptors have run out.
struct SocketPair {
    UniqueFd first;
    UniqueFd second;
};
[[nodiscard]] SocketPair makeSocketPair(int type);

/// Whether this is one half of a local socket pair of that type: connected, and neither end has a
/// name. Any descriptor may be asked about.
[[nodiscard]] bool isHalfOfSocketPair(int descriptor, int type) noexcept;

}  // namespace corvalen
