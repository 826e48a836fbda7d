// SPDX-License-Identifier: MIT
// What the service manager hands over at start, and what it is told.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "corvalen/descriptor.hpp"
#include "corvalen/error.hpp"

namespace corvalen {

/// The socket of the service, and how it was come by.
struct ServiceSocket {
    /// Empty when there is none.
    UniqueFd socket;
    /// It was made here, so its path is to be removed at the end.
    bool madeHere = false;
    /// For the log: each passed descriptor that was closed, and why.
    std::vector<std::string> remarks;
};

/// The listening socket of the service called `name`, as the service manager passed it
/// (sd_listen_fds(3): LISTEN_PID, LISTEN_FDS, LISTEN_FDNAMES): a single listening local stream
/// socket whatever its name, of several the one named `name` or `name`.socket. Else a socket made
/// at `wellKnownPath` (mode 0666), where a stale one that nobody listens on is removed first. No
/// socket and `*error` on failure. The environment variables of the convention are removed.
[[nodiscard]] ServiceSocket takeServiceSocket(std::string_view name, std::string_view wellKnownPath,
                                              ErrorRef* error = nullptr);

/// Tells the service manager a state such as "READY=1" (sd_notify(3)); nothing when there is none.
void notifyServiceManager(std::string_view state) noexcept;

}  // namespace corvalen
