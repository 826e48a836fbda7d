// SPDX-License-Identifier: MIT
// What the process gives itself before it serves.
#pragma once

#include <sys/resource.h>

#include <optional>

namespace corvalen {

/// Before any other thread exists: opens /dev/null in the place of closed standard descriptors,
/// ignores SIGPIPE, lets children be waited for, blocks the signals that end the daemon (children
/// have to unblock them), goes to the root directory with the mask 022, and raises the soft limit
/// of descriptors to the hard one.
void prepareProcess() noexcept;

/// The limit of descriptors that the process was started with, which is the one for programs that
/// it starts; nothing before `prepareProcess`, constant afterwards.
[[nodiscard]] std::optional<rlimit> descriptorLimitAtStart() noexcept;

/// Waits for SIGTERM, SIGINT or SIGHUP and gives its number. The signals must be blocked.
int waitForTerminationSignal() noexcept;

}  // namespace corvalen
