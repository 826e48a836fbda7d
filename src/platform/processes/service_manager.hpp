// SPDX-License-Identifier: MIT
// The interface to the service manager: the socket that it passes, and state notifications.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "corvalen/descriptor.hpp"
#include "corvalen/error.hpp"

namespace corvalen {

/// The socket of the service and its origin.
struct ServiceSocket {
    /// Empty on failure.
    UniqueFd socket;
    /// Created here; its path must be removed at the end.
    bool madeHere = false;
    /// Log lines: each passed descriptor that was closed, and why.
    std::vector<std::string> remarks;
};

/// Returns the listening socket of the service `name` that the service manager passed
/// (sd_listen_fds(3): LISTEN_PID, LISTEN_FDS, LISTEN_FDNAMES): a single listening local stream
/// socket, or the one of several that is named `name` or `name`.socket. Without one, creates a
/// socket at `wellKnownPath` (mode 0666), after removing a stale one on which nobody listens. On
/// failure returns no socket and sets `*error`. Removes the environment variables of the
/// convention; call before threads exist.
[[nodiscard]] ServiceSocket takeServiceSocket(std::string_view name, std::string_view wellKnownPath,
                                              ErrorRef* error = nullptr);

/// Sends the service manager a state such as "READY=1" (sd_notify(3)), if there is one.
void notifyServiceManager(std::string_view state) noexcept;

}  // namespace corvalen
