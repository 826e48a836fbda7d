// SPDX-License-Identifier: MIT
#include "cli/command_table.hpp"

#include <algorithm>
#include <corvalen/catalogue.hpp>
#include <numeric>
#include <utility>

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

constexpr std::size_t kMostSuggestions = 3;

/// Returns the optimal string alignment distance: one edit inserts, removes or replaces a letter,
/// or exchanges two neighbours.
std::size_t editDistance(std::string_view from, std::string_view to) {
    std::vector<std::size_t> beforeLast(to.size() + 1);
    std::vector<std::size_t> last(to.size() + 1);
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(last.begin(), last.end(), std::size_t{0});
    for (std::size_t i = 1; i <= from.size(); ++i) {
        row[0] = i;
        for (std::size_t j = 1; j <= to.size(); ++j) {
            const std::size_t replaced = last[j - 1] + (from[i - 1] == to[j - 1] ? 0 : 1);
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, replaced});
            const bool isExchanged =
                i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1];
            if (isExchanged) row[j] = std::min(row[j], beforeLast[j - 2] + 1);
        }
        beforeLast.swap(last);
        last.swap(row);
    }
    return last[to.size()];
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

std::vector<std::string_view> suggestionsFor(std::string_view word,
                                             const std::vector<std::string_view>& names) {
    std::vector<std::pair<std::size_t, std::string_view>> near;
    const std::size_t limit = std::max<std::size_t>(1, word.size() / 3);
    for (const std::string_view name : names) {
        const std::size_t distance = editDistance(word, name);
        if (word.size() > 1 && name.substr(0, word.size()) == word)
            near.emplace_back(0, name);
        else if (distance <= limit && distance < name.size())
            near.emplace_back(distance, name);
    }
    std::stable_sort(near.begin(), near.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<std::string_view> suggestions;
    for (const auto& [distance, name] : near)
        if (suggestions.size() < kMostSuggestions) suggestions.emplace_back(name);
    return suggestions;
}

}  // namespace corvalen::cli
