// SPDX-License-Identifier: MIT
// Shows long texts through a pager.
#pragma once

#include <string_view>

#include "cli/command.hpp"

namespace corvalen::cli {

/// Writes a text to standard output; returns the exit code. On a terminal with fewer lines than the
/// text, $PAGER or else less(1) shows it, unless --no-pager or --json was given or the pager is
/// missing. Under sudo, doas and pkexec the pager is always less in its secure mode, which starts
/// no other programs. Blocks until the pager ends.
int writePaged(std::string_view text, const Arguments& arguments);

}  // namespace corvalen::cli
