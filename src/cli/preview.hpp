// SPDX-License-Identifier: MIT
// What a command would touch, without touching it.
#pragma once

#include "cli/command.hpp"

namespace corvalen::cli {

/// Lists what the command would delete or change, found by the helper's searches, which need their
/// own rights; changes nothing and says so. Gives the exit code.
int runPreview(const Command& command, const Arguments& arguments);

}  // namespace corvalen::cli
