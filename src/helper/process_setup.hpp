// SPDX-License-Identifier: MIT
// Process-wide setup, and the main thread's wait for termination.
#pragma once

#include <sys/resource.h>

#include <chrono>
#include <optional>

#include "corvalen/descriptor.hpp"

namespace corvalen {

/// Call before any other thread exists. Opens /dev/null for closed standard descriptors, ignores
/// SIGPIPE, resets SIGCHLD, blocks the termination signals (children must unblock them), changes to
/// the root directory, sets the umask to 022, raises the soft limit of descriptors to the hard one,
/// and clears the effective capabilities.
void prepareProcess() noexcept;

/// The descriptor limit at process start, to be restored in child programs; std::nullopt before
/// `prepareProcess`, constant afterwards.
[[nodiscard]] std::optional<rlimit> descriptorLimitAtStart() noexcept;

/// Returns true if `prepareProcess` found standard error closed: output to it is lost.
[[nodiscard]] bool standardErrorWasClosed() noexcept;

/// Waits for SIGTERM, SIGINT or SIGHUP, which must be blocked, and for calls of `wake`.
class TerminationWait {
  public:
    /// Throws std::system_error if the descriptors are used up.
    TerminationWait();

    /// Returns true if a signal has arrived; false after `wake` or when `timeout` (std::nullopt:
    /// none) is over. One thread only.
    [[nodiscard]] bool wait(std::optional<std::chrono::milliseconds> timeout) noexcept;
    /// Ends the current wait, or the next one. Any thread.
    void wake() noexcept;

  private:
    UniqueFd _signals;
    UniqueFd _wakeUp;
};

}  // namespace corvalen
