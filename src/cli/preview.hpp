// SPDX-License-Identifier: MIT
// The dry run: lists the objects that a command would touch.
#pragma once

#include "cli/command.hpp"

namespace corvalen::cli {

/// Lists the objects that the command would delete or change, with their number and size, and
/// changes nothing; returns the exit code. Objects below directories are found by the daemon's
/// searches, which need their own rights. Throws UsageError.
int runPreview(const Command& command, const Arguments& arguments);

}  // namespace corvalen::cli
