// SPDX-License-Identifier: MIT
#include "cli/command_table.hpp"
namespace corvalen::cli {
std::span<const Command> settingCommands() {
    return {};
}
}  // namespace corvalen::cli
