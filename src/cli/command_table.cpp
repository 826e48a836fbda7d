// SPDX-License-Identifier: MIT
#include "cli/command_table.hpp"

#include <corvalen/catalogue.hpp>

#include "operations/operation_descriptions.hpp"

namespace corvalen::cli {
namespace {

std::vector<Command> gatherCommands() {
    std::vector<Command> commands;
    for (const auto& family : {helperCommands(), callCommands(), fileCommands(), treeCommands(),
                               settingCommands(), processCommands()})
        commands.insert(commands.end(), family.begin(), family.end());
    for (Command& command : commands)
        if (const OperationInfo* operation = findOperation(command.name))
            command.summary = descriptionOfOperation(operation->code)->summary;
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
