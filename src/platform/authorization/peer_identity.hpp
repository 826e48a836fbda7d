// SPDX-License-Identifier: MIT
// The identity of the process at the other end of a connection, from the kernel (unix(7),
// SO_PEERCRED).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>

#include "corvalen/descriptor.hpp"

namespace corvalen {

/// The process that created the other end of a connection. Read once, when the connection is
/// accepted; nothing that the client sends changes it. Copies share the process descriptor.
struct PeerIdentity {
    pid_t pid = 0;
    uid_t uid = static_cast<uid_t>(-1);
    gid_t gid = static_cast<gid_t>(-1);
    /// Start time in clock ticks since boot (field 22 of /proc/PID/stat, proc(5)); with the pid it
    /// identifies the process for good. 0 if the process had already ended.
    std::uint64_t startTime = 0;
    /// A pidfd (pidfd_open(2)) of the process; null before Linux 6.5, or if the process had ended.
    std::shared_ptr<const UniqueFd> processDescriptor;
    /// The connection's socket, borrowed; only the connection's thread may poll it, to detect that
    /// the peer closed it. -1 for a process that is not a peer.
    int socket = -1;

    /// Returns whether this process, not a later one with its pid, still runs.
    [[nodiscard]] bool isAlive() const noexcept;
};

/// Returns the identity of the peer of a connected local socket; uid -1 and pid 0 if the kernel
/// reports none.
[[nodiscard]] PeerIdentity peerIdentityOfSocket(int socket);

/// Returns the start time of a process as above; 0 if it does not exist. Any thread may call.
[[nodiscard]] std::uint64_t processStartTime(pid_t pid) noexcept;

}  // namespace corvalen
