// SPDX-License-Identifier: MIT
// What the service manager hands over at start, and what it is told.
#pragma once

#include <string_view>

#include "corvalen/descriptor.hpp"
#include "corvalen/error.hpp"

namespace corvalen {

/// The listening socket of the service called `name`: the one the service manager passed
/// (sd_listen_fds(3): LISTEN_PID, LISTEN_FDS, LISTEN_FDNAMES), else a socket made at
/// `wellKnownPath` (mode 0666), where a stale one that nobody listens on is removed first. Empty
/// and `*error` on failure. `*madeHere` tells whether it was made, so that its path is to be
/// removed at the end. The environment variables of the convention are removed.
[[nodiscard]] UniqueFd takeServiceSocket(std::string_view name, std::string_view wellKnownPath,
                                         ErrorRef* error = nullptr, bool* madeHere = nullptr);

/// Tells the service manager a state such as "READY=1" (sd_notify(3)); nothing when there is none.
void notifyServiceManager(std::string_view state) noexcept;

}  // namespace corvalen
