// SPDX-License-Identifier: MIT
// Long texts on a terminal.
#pragma once

#include <string_view>

#include "cli/command.hpp"

namespace corvalen::cli {

/// Writes a text to standard output; gives the exit code. On a terminal that does not hold all of
/// its lines the user's pager shows it ($PAGER, else less(1)), unless --no-pager or --json is given
/// or there is no pager. Users who were given root's rights for this program (sudo, pkexec) get
/// nothing but less in its secure mode, which starts no other programs.
int writePaged(std::string_view text, const Arguments& arguments);

}  // namespace corvalen::cli
