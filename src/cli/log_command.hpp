// SPDX-License-Identifier: MIT
// The log command, which lists the audit entries of the journal.
#pragma once

#include <cstdint>
#include <ctime>
#include <string_view>

#include "cli/command.hpp"

namespace corvalen::cli {

/// Lists the granted operations with user, program, object and outcome; returns the exit code.
int runLog(const Arguments& arguments);

/// Converts a local time to seconds since 1970: "2026-11-22", "2026-11-22 14:00", "14:00" (both
/// also with seconds), "today", "yesterday", or an age before `now` such as "2h" (s, min, m, h, d,
/// w). Throws UsageError for other texts.
[[nodiscard]] std::time_t parsePointOfTime(std::string_view text, std::time_t now);

}  // namespace corvalen::cli
