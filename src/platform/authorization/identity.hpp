// SPDX-License-Identifier: MIT
// The process at the other end of a connection, from the kernel (unix(7), SO_PEERCRED), and the
// accounts of the machine, as the name service switch lists them (getpwent(3)).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "foundation/borrowed_descriptor.hpp"

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
    /// the peer closed it. None for a process that is not a peer.
    Descriptor socket = {};

    /// Returns whether this process, not a later one with its pid, still runs.
    [[nodiscard]] bool isAlive() const noexcept;
};

/// Returns the identity of the peer of a connected local socket; uid -1 and pid 0 if the kernel
/// reports none.
[[nodiscard]] PeerIdentity peerIdentityOfSocket(Descriptor socket);

/// Returns the start time of a process as above; 0 if it does not exist. Any thread may call.
[[nodiscard]] std::uint64_t processStartTime(pid_t pid) noexcept;

class UserDatabase {
  public:
    virtual ~UserDatabase() = default;
    /// Returns the user id of every listed account, in no order; only a part if reading fails. Any
    /// thread may call.
    [[nodiscard]] virtual std::vector<std::uint32_t> listedUserIDs() = 0;
};

[[nodiscard]] std::unique_ptr<UserDatabase> makeUserDatabase();

/// A user's record in the user database (getpwnam(3)).
struct UserAccount {
    uid_t uid = static_cast<uid_t>(-1);
    gid_t gid = static_cast<gid_t>(-1);
    std::vector<gid_t> groups;
    std::string homeFolder;
};

/// Both return std::nullopt if there is no such user or the database cannot be read. Any thread may
/// call.
[[nodiscard]] std::optional<UserAccount> userAccountNamed(const std::string& name);
/// The account of this process's effective user.
[[nodiscard]] std::optional<UserAccount> ownUserAccount();

}  // namespace corvalen
