// SPDX-License-Identifier: MIT
// System calls on local sockets, for bytes and descriptors (unix(7), cmsg(3)).
//
// The peer may share a socket's open file description, so nothing relies on O_NONBLOCK or on socket
// options: calls that must not block pass MSG_DONTWAIT.
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
    /// As returned by recv(2); if -1, `errnoValue` is set.
    ssize_t size = -1;
    int errnoValue = 0;
    /// Descriptors were lost: more than a message may have, or no free ones in this process.
    bool descriptorsLost = false;
};

/// Receives once. Appends received descriptors, close-on-exec, to `descriptors` even if others were
/// lost. Even `Waiting::yes` may return EAGAIN; poll then. Sets `*sender` if the socket has
/// SO_PASSCRED. Throws std::bad_alloc.
Received receive(int socket, std::span<char> buffer, std::vector<UniqueFd>& descriptors,
                 Waiting waiting = Waiting::no, std::optional<ucred>* sender = nullptr);

/// Sends as much as possible without blocking, descriptors with the first byte; never raises
/// SIGPIPE. Returns the number of bytes sent, or a negative errno value.
ssize_t sendSome(int socket, std::string_view bytes, std::span<const int> descriptors) noexcept;

/// Waits for `events` on a socket; a hang-up counts. Returns false once the deadline has passed.
bool waitFor(int socket, short events, std::optional<Clock::time_point> deadline) noexcept;

/// Two connected halves; both empty if the descriptors are used up.
struct SocketPair {
    UniqueFd first;
    UniqueFd second;
};
[[nodiscard]] SocketPair makeSocketPair(int type);

/// Returns true if `descriptor`, which may be of any kind, is one half of a local socket pair of
/// that type: connected, and neither end has a name.
[[nodiscard]] bool isHalfOfSocketPair(int descriptor, int type) noexcept;

/// Closes a local socket on another thread, soon. For threads that serve several clients: the last
/// close of a socket also closes the descriptors in its queue, and one of them may linger for hours
/// (socket(7), SO_LINGER). The closing thread does not linger either. Any thread.
void closeElsewhere(UniqueFd socket) noexcept;

}  // namespace corvalen
