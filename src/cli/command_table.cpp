// SPDX-License-Identifier: MIT
#include "cli/command_table.hpp"

namespace corvalen::cli {
namespace {

std::vector<Command> gatherCommands() {
    std::vector<Command> commands;
    for (const auto& family : {helperCommands(), callCommands(), fileCommands(), treeCommands(),
                               settingCommands(), processCommands()})
        commands.insert(commands.end(), family.begin(), family.end());
    return commands;
}

}  // namespace

const std::vector<Command>& commandTable() {
    static const std::vector<Command> commands = gatherCommands();
    return commands;
}

const Command* findCommand(std::string_view name) {
    for (const Command& command : commandTable())
        if (command.name == name) return &command;
    return nullptr;
}

}  // namespace corvalen::cli
