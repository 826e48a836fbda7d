// SPDX-License-Identifier: MIT
// What the process gives itself before it serves.
#pragma once

#include <sys/resource.h>

#include <chrono>
#include <optional>

#include "corvalen/descriptor.hpp"

namespace corvalen {

/// Before any other thread exists: opens /dev/null in the place of closed standard descriptors,
/// ignores SIGPIPE, lets children be waited for, blocks the signals that end the daemon (children
/// have to unblock them), goes to the root directory with the mask 022, raises the soft limit of
/// descriptors to the hard one, and takes all capabilities out of effect.
void prepareProcess() noexcept;

/// The limit of descriptors that the process was started with, which is the one for programs that
/// it starts; nothing before `prepareProcess`, constant afterwards.
[[nodiscard]] std::optional<rlimit> descriptorLimitAtStart() noexcept;

/// Whether `prepareProcess` found standard error closed: what is written there now is lost.
[[nodiscard]] bool standardErrorWasClosed() noexcept;

/// What the main thread waits for while others serve: SIGTERM, SIGINT or SIGHUP, which must be
/// blocked, and calls of `wake`.
class TerminationWait {
  public:
    /// Throws std::system_error when descriptors have run out.
    TerminationWait();

    /// True when one of the signals has come; false after `wake` or when the time (none: for ever)
    /// is over. For one thread.
    [[nodiscard]] bool wait(std::optional<std::chrono::milliseconds> timeout) noexcept;
    /// Ends the wait, or the next one. Any thread.
    void wake() noexcept;

  private:
    UniqueFd _signals;
    UniqueFd _wakeUp;
};

}  // namespace corvalen
