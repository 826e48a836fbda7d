// SPDX-License-Identifier: MIT
// Removes the helper from the machine.
#pragma once

#include "cli/command.hpp"

namespace corvalen::cli {

/// Lets the helper remove its rights, then its files, after asking.
int runUninstall(const Arguments& arguments);

}  // namespace corvalen::cli
