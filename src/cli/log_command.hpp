// SPDX-License-Identifier: MIT
// The audit of the helper, as the journal keeps it.
#pragma once

#include <cstdint>
#include <ctime>
#include <string_view>

#include "cli/command.hpp"

namespace corvalen::cli {

/// Lists which operations were granted to whom; gives the exit code.
int runLog(const Arguments& arguments);

/// A point of time in local time: "2026-11-22", "2026-11-22 14:00", with seconds or without,
/// "14:00", "today", "yesterday", or "2h", which is two hours before `now` (s, min, h, d, w).
/// Seconds since 1970; a UsageError for other texts.
[[nodiscard]] std::time_t parsePointOfTime(std::string_view text, std::time_t now);

}  // namespace corvalen::cli
