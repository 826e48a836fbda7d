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

constexpr std::size_t kMaximumSuggestions = 3;

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

// Example command lines of --help and of the manual page. A test parses each of them.
struct Examples {
    std::string_view command;
    std::string_view lines;
};

constexpr Examples kExamples[] = {
    {"version", "corvalenctl version"},
    {"status", "corvalenctl status --rights"},
    {"list",
     "corvalenctl list\n"
     "corvalenctl list delete-fileobjects"},
    {"log",
     "corvalenctl log --since today\n"
     "corvalenctl log --user ada --operation delete-fileobjects --limit 20"},
    {"nop", "corvalenctl nop"},
    {"discard-auth", "corvalenctl discard-auth"},
    {"debug", "corvalenctl debug on"},
    {"batch",
     "corvalenctl batch cleanup.txt\n"
     "corvalenctl batch --keep-going --yes --json <cleanup.txt"},
    {"install-rights", "corvalenctl install-rights"},
    {"remove-rights", "corvalenctl remove-rights"},
    {"prepare-uninstall", "corvalenctl prepare-uninstall --yes"},
    {"uninstall", "corvalenctl uninstall"},
    {"delete-files", "corvalenctl delete-files /opt/old/file /opt/old"},
    {"call",
     "corvalenctl call inspect-fileobject S:/srv/www\n"
     "corvalenctl call 7 S:/srv/www N:true N:true N:false"},
    {"create-fileobject", "corvalenctl create-fileobject --folder /srv/www"},
    {"rename-fileobject", "corvalenctl rename-fileobject /srv/www /srv/www.old"},
    {"inspect-fileobject", "corvalenctl inspect-fileobject /etc/sudoers.d"},
    {"touch-fileobject", "corvalenctl touch-fileobject /srv/www/index.html"},
    {"create-link", "corvalenctl create-link ../releases/7 /srv/www/current"},
    {"delete-fileobjects",
     "corvalenctl delete-fileobjects --recursive --dry-run --sort size /srv/www.old\n"
     "corvalenctl delete-fileobjects -r /srv/www.old"},
    {"delete-foldercontents", "corvalenctl delete-foldercontents /var/cache/thumbnails"},
    {"modify-systemfile",
     "corvalenctl modify-systemfile /etc/motd --from motd.new\n"
     "sed s/no/yes/ /etc/x.conf | corvalenctl modify-systemfile /etc/x.conf"},
    {"modify-protection", "corvalenctl modify-protection --lock --recursive /srv/archive"},
    {"modify-hfsattr", "corvalenctl modify-hfsattr --type TEXT --creator '' --visible /srv/a"},
    {"modify-acl", "corvalenctl modify-acl /srv/a u::rw-,u:root:r--,g::r--,o::---"},
    {"search-patterns",
     "corvalenctl search-patterns /srv --extension log --extension tmp\n"
     "corvalenctl search-patterns /var --name core --sort size --limit 10"},
    {"search-agedfiles", "corvalenctl search-agedfiles /srv --days 365 --sort size"},
    {"search-filenames", "corvalenctl search-filenames /srv --prefix report- -e pdf"},
    {"search-fileorphans", "corvalenctl search-fileorphans --one-file-system /home"},
    {"inspect-storagesize", "corvalenctl inspect-storagesize /var/lib"},
    {"prop-permissions",
     "corvalenctl prop-permissions /srv/www --owner --group --mode\n"
     "corvalenctl prop-permissions /srv/www --acl --dry-run"},
    {"modify-powersetting", "corvalenctl modify-powersetting 'Disk Sleep Timer' 10"},
    {"modify-diskspindown", "corvalenctl modify-diskspindown 10"},
    {"modify-kernelsetting", "corvalenctl modify-kernelsetting vm.swappiness 60"},
    {"modify-nvram", "corvalenctl modify-nvram boot-note hello"},
    {"modify-preferences",
     "corvalenctl modify-preferences Colour blue --domain org.example.editor --any-user\n"
     "corvalenctl modify-preferences Colour --remove --user root"},
    {"modify-sysconf", "corvalenctl modify-sysconf ComputerName mill"},
    {"terminate-process", "corvalenctl terminate-process 4711"},
    {"execute-utility", "corvalenctl execute-utility chmod -R g+w /srv/www"},
};

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
        if (suggestions.size() < kMaximumSuggestions) suggestions.emplace_back(name);
    return suggestions;
}

std::string_view examplesOf(std::string_view command) noexcept {
    for (const Examples& examples : kExamples)
        if (examples.command == command) return examples.lines;
    return {};
}

}  // namespace corvalen::cli
