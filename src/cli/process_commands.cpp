// SPDX-License-Identifier: MIT
#include "cli/command_table.hpp"
namespace corvalen::cli {
std::span<const Command> processCommands() {
    return {};
}
}  // namespace corvalen::cli
