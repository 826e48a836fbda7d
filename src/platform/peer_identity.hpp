// SPDX-License-Identifier: MIT
// Who is at the other end of a connection, as the kernel says (unix(7), SO_PEERCRED).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>

#include "corvalen/descriptor.hpp"

namespace corvalen {

/// The process that made the other half of a connection. Taken once, when the connection is made;
/// nothing the client says can change it. Copies share the process descriptor.
struct PeerIdentity {
    pid_t pid = 0;
    uid_t uid = static_cast<uid_t>(-1);
    gid_t gid = static_cast<gid_t>(-1);
    /// Field 22 of /proc/PID/stat (proc(5)), in clock ticks since boot; with the pid it names the
    /// process for ever. 0 when the process was gone already.
    std::uint64_t startTime = 0;
    /// A pidfd (pidfd_open(2)) of the process, null on kernels that attest none.
    std::shared_ptr<const UniqueFd> processDescriptor;
    /// The connection's socket, borrowed; only its own thread may look at it, to learn whether the
    /// peer closed it. -1 for a process that is no peer.
    int socket = -1;

    /// Whether that very process is still there.
    [[nodiscard]] bool isAlive() const noexcept;
};

/// The identity of the peer of a connected local socket; uid and pid stay unset (-1, 0) when the
/// kernel tells nothing.
[[nodiscard]] PeerIdentity peerIdentityOfSocket(int socket);

/// The start time of a process (field 22 of its stat file), 0 when there is no such process.
[[nodiscard]] std::uint64_t processStartTime(pid_t pid) noexcept;

}  // namespace corvalen
