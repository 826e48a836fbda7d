// SPDX-License-Identifier: MIT
// Discards the output of processes that a utility left behind.
#pragma once

#include "corvalen/descriptor.hpp"

namespace corvalen {

/// Maximum number of pairs of pipes that are read. Further pairs are closed at once, and their
/// writers get SIGPIPE.
inline constexpr int kMaximumLeftoverPairs = 32;

/// Starts a thread that reads both pipes to their ends and discards the bytes, so that their
/// writers get no SIGPIPE and do not block for long. Takes the pipes, which have O_NONBLOCK set;
/// either may be empty. The thread reads at most 1 MiB from each pipe every 100 ms, so a flood
/// costs little. Any thread may call; never blocks.
void discardLeftoverOutput(UniqueFd output, UniqueFd error) noexcept;

}  // namespace corvalen
