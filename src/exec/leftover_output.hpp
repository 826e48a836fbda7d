// SPDX-License-Identifier: MIT
// The output of processes that a utility left behind.
#pragma once

#include "corvalen/descriptor.hpp"

namespace corvalen {

/// Pairs of pipes that are read at once. Past it, a new pair is closed, and its writers get
/// SIGPIPE.
inline constexpr int kMaximumLeftoverPairs = 32;

/// Reads the two pipes (set O_NONBLOCK; either may be empty) to their ends on a thread of its own
/// and discards what comes, so that no writer is ended by SIGPIPE or waits for long. The thread
/// reads at most one pipe's content every 100 ms: a writer that floods costs little. Never waits.
void discardLeftoverOutput(UniqueFd output, UniqueFd error) noexcept;

}  // namespace corvalen
