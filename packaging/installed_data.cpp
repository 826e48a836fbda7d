// SPDX-License-Identifier: MIT
// Writes the installed files that are made from the programs' tables: polkit policies, shell
// completions, the lists of the man pages. Runs during the build.
#include <fmt/format.h>

#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "cli/command_table.hpp"
#include "cli/text.hpp"
#include "operations/privileged_operation_set.hpp"
#include "platform/linux/authorization/polkit.hpp"

namespace corvalen::cli {
namespace {

struct OptionNames {
    std::string shortName;
    std::string longName;
};

OptionNames namesOf(const Option& option) {
    const std::size_t comma = option.names.find(',');
    OptionNames names;
    if (comma != std::string_view::npos) names.shortName = option.names.substr(1, comma - 1);
    names.longName = optionKey(option.names);
    return names;
}

std::vector<Option> allOptions(const Command& command) {
    std::vector<Option> options = optionsOfCommand(command);
    options.insert(options.end(), commonOptions().begin(), commonOptions().end());
    return options;
}

std::string replaced(std::string text, std::string_view what, std::string_view with) {
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size()))
        text.replace(at, what.size(), with);
    return text;
}

std::string shellQuoted(std::string_view text) {
    return "'" + replaced(std::string(text), "'", "'\\''") + "'";
}

std::string operationNames() {
    std::string names;
    const QRLPrivilegedOperationSetKVX set;
    for (const auto& [code, identifier] : set.opIdentifiersByCode())
        names += (names.empty() ? "" : " ") + identifier;
    return names;
}

std::string commandNames() {
    std::string names;
    for (const Command& command : commandTable())
        names += (names.empty() ? "" : " ") + std::string(command.name);
    return names;
}

std::string commonOptionNames() {
    std::string names;
    for (const Option& option : commonOptions())
        names += "--" + namesOf(option).longName + " ";
    return names;
}

/// All values, separated by blanks; empty if they are not a fixed set.
std::string wordsOf(Completion completion) {
    switch (completion) {
        case Completion::operation:
            return operationNames();
        case Completion::utility:
            return utilityNames();
        case Completion::onOrOff:
            return "on off";
        case Completion::sortKey:
            return "path size modified";
        default:
            return {};
    }
}

std::string bashAction(Completion completion) {
    switch (completion) {
        case Completion::path:
            return "compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- \"$word\")";
        case Completion::directory:
            return "compopt -o filenames; mapfile -t COMPREPLY < <(compgen -d -- \"$word\")";
        case Completion::user:
            return "COMPREPLY=($(compgen -u -- \"$word\"))";
        case Completion::process:
            return "COMPREPLY=($(compgen -W \"$(cd /proc && echo [0-9]*)\" -- \"$word\"))";
        case Completion::host:
            return "COMPREPLY=($(compgen -A hostname -- \"$word\"))";
        default:
            break;
    }
    const std::string words = wordsOf(completion);
    return words.empty() ? "COMPREPLY=()"
                         : "COMPREPLY=($(compgen -W '" + words + "' -- \"$word\"))";
}

/// The completions of each positional, by the number of positionals before the cursor.
std::string bashPositionals(const Command& command) {
    std::string text = "        case $position in\n";
    std::size_t position = 0;
    for (const Positional& positional : command.positionals)
        text += fmt::format("            {}) {} ;;\n",
                            positional.maximum == kUnlimited ? "*" : std::to_string(position++),
                            bashAction(positional.completion));
    return text + "        esac ;;\n";
}

std::string bashCommand(const Command& command) {
    std::string options;
    std::string values;
    std::string valued;
    for (const Option& option : allOptions(command)) {
        const OptionNames names = namesOf(option);
        options += "--" + names.longName + " ";
        std::string pattern = "--" + names.longName;
        if (!names.shortName.empty()) {
            options += "-" + names.shortName + " ";
            pattern += "|-" + names.shortName;
        }
        if (option.valueName.empty()) continue;
        valued += (valued.empty() ? "" : "|") + pattern;
        values +=
            fmt::format("            {}) {}; return ;;\n", pattern, bashAction(option.completion));
    }
    // A pass-through command has no options of its own after its first positional.
    const char* where = command.passThrough ? " && $position == 0" : "";
    std::string text = fmt::format("    {})\n", command.name);
    text += fmt::format(R"(        while ((++i < COMP_CWORD)); do
            case ${{COMP_WORDS[i]}} in {}) ((i++)) ;; -*) ;; *) ((position++)) ;; esac
        done
)",
                        valued);
    text += "        case $previous in\n" + values + "        esac\n";
    text += fmt::format(
        "        if [[ $word == -*{} ]]; then COMPREPLY=($(compgen -W '{}--help' -- "
        "\"$word\")); return; fi\n",
        where, options);
    return text + bashPositionals(command);
}

std::string bashCompletion() {
    std::string text = R"(# bash completion for corvalenctl
_corvalenctl() {
    local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]} command='' position=0 i
    local IFS=$' \t\n'
    COMPREPLY=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
        --socket|--remote|-H) ((i++)) ;;
        -*) ;;
        *) command=${COMP_WORDS[i]}; break ;;
        esac
    done
    case $command in
    '')
        case $previous in
        --socket) )" + bashAction(Completion::path) +
                       R"(; return ;;
        --remote|-H) )" +
                       bashAction(Completion::host) +
                       R"(; return ;;
        esac
        COMPREPLY=($(compgen -W ')" +
                       commandNames() + " " + commonOptionNames() + R"(--help' -- "$word")) ;;
)";
    for (const Command& command : commandTable())
        text += bashCommand(command);
    return text + "    esac\n}\ncomplete -F _corvalenctl corvalenctl\n";
}

std::string zshAction(Completion completion) {
    switch (completion) {
        case Completion::path:
            return "_files";
        case Completion::directory:
            return "_files -/";
        case Completion::user:
            return "_users";
        case Completion::process:
            // _pids offers only those of this terminal.
            return "{compadd - $(cd /proc && echo [0-9]*)}";
        case Completion::host:
            return "_hosts";
        default:
            break;
    }
    const std::string words = wordsOf(completion);
    return words.empty() ? " " : "(" + words + ")";
}

/// Escapes the characters that would end an option's description.
std::string zshDescription(std::string_view help) {
    std::string text(help);
    for (const std::string_view special : {"\\", "[", "]", ":"})
        text = replaced(text, special, "\\" + std::string(special));
    return text;
}

std::string zshArgument(const std::string& argument) {
    return " \\\n            " + shellQuoted(argument);
}

std::string zshOption(const Option& option) {
    const OptionNames names = namesOf(option);
    std::string rest = "[" + zshDescription(option.help) + "]";
    if (!option.valueName.empty())
        rest +=
            fmt::format(":{}:{}", zshDescription(option.valueName), zshAction(option.completion));
    const std::string repeat = option.repeatable ? "*" : "";
    std::string text = zshArgument(repeat + "--" + names.longName + rest);
    if (!names.shortName.empty()) text += zshArgument(repeat + "-" + names.shortName + rest);
    return text;
}

std::string zshCommand(const Command& command) {
    std::string text = fmt::format("    {})\n        _arguments -S{}", command.name,
                                   command.passThrough ? " -A '-*'" : "");
    for (const Option& option : allOptions(command))
        text += zshOption(option);
    for (const Positional& positional : command.positionals)
        text += zshArgument(fmt::format("{}:{}:{}", positional.maximum == kUnlimited ? "*" : "",
                                        zshDescription(positional.name),
                                        zshAction(positional.completion)));
    return text + " ;;\n";
}

std::string zshCompletion() {
    std::string text = R"(#compdef corvalenctl
_corvalenctl() {
    local curcontext=$curcontext state line
    _arguments -C)";
    for (const Option& option : commonOptions())
        text += zshOption(option);
    text += zshArgument("1:command:->command") + zshArgument("*::arguments:->rest") + R"(
    case $state in
    command)
        local -a commands=(
)";
    for (const Command& command : commandTable())
        text += "            " +
                shellQuoted(std::string(command.name) + ":" +
                            replaced(std::string(command.summary), ":", "\\:")) +
                "\n";
    text +=
        "        )\n        _describe command commands; return ;;\n    esac\n"
        "    case $words[1] in\n";
    for (const Command& command : commandTable())
        text += zshCommand(command);
    return text + "    esac\n}\n_corvalenctl \"$@\"\n";
}

/// The completions of a value that is not a path; may be empty.
std::string fishWords(Completion completion) {
    switch (completion) {
        case Completion::directory:
            return "(__fish_complete_directories)";
        case Completion::user:
            return "(__fish_complete_users)";
        case Completion::process:
            return "(__fish_complete_pids)";
        case Completion::host:
            return "(__fish_print_hostnames)";
        default:
            return wordsOf(completion);
    }
}

std::string fishValue(Completion completion) {
    if (completion == Completion::path) return " -r -F";
    const std::string words = fishWords(completion);
    return words.empty() ? " -x" : " -x -a '" + words + "'";
}

std::string fishQuoted(std::string_view text) {
    return "'" + replaced(replaced(std::string(text), "\\", "\\\\"), "'", "\\'") + "'";
}

std::string fishPositional(Completion completion, const std::string& condition) {
    const bool isPath = completion == Completion::path || completion == Completion::directory;
    const std::string words = isPath ? "" : fishWords(completion);
    if (!isPath && words.empty()) return "";
    return "complete -c corvalenctl" + condition + (isPath ? " -F" : " -a '" + words + "'") + "\n";
}

std::string fishCompletion() {
    std::string text = "# fish completion for corvalenctl\nset -l commands " + commandNames() +
                       "\ncomplete -c corvalenctl -f\n";
    const auto addOption = [&text](const std::string& condition, const Option& option) {
        const OptionNames names = namesOf(option);
        text += "complete -c corvalenctl" + condition + " -l " + names.longName;
        if (!names.shortName.empty()) text += " -s " + names.shortName;
        if (!option.valueName.empty()) text += fishValue(option.completion);
        text += " -d " + fishQuoted(option.help) + "\n";
    };
    for (const Option& option : commonOptions())
        addOption("", option);
    for (const Command& command : commandTable()) {
        text += fmt::format(
            "complete -c corvalenctl -n \"not __fish_seen_subcommand_from $commands\" -a {} -d "
            "{}\n",
            command.name, fishQuoted(command.summary));
        const std::string condition =
            fmt::format(" -n '__fish_seen_subcommand_from {}'", command.name);
        for (const Option& option : optionsOfCommand(command))
            addOption(condition, option);
        for (const Positional& positional : command.positionals)
            text += fishPositional(positional.completion, condition);
    }
    return text;
}

/// The commands of corvalenctl(1) with their options.
std::string commandsOfManual() {
    std::string text;
    for (const Command& command : commandTable()) {
        text += fmt::format("*{}* [options]", command.name);
        for (const Positional& positional : command.positionals) {
            const char* many = positional.maximum == kUnlimited ? "..." : "";
            const std::string shown = fmt::format("_{}_{}", positional.name, many);
            text += positional.minimum == 0 ? " [" + shown + "]" : " " + shown;
        }
        text += "\n\t" + manualText(command.summary) + ".";
        if (!command.details.empty()) text += "\n\n\t" + manualText(command.details);
        text += "\n\n";
        for (const Positional& positional : command.positionals)
            text += fmt::format("\t_{}_: {}\n\n", positional.name, manualText(positional.help));
        for (const Option& option : optionsOfCommand(command)) {
            const OptionNames names = namesOf(option);
            text += "\t";
            if (!names.shortName.empty()) text += fmt::format("*-{}*, ", names.shortName);
            text += fmt::format("*--{}*", names.longName);
            if (!option.valueName.empty())
                text += fmt::format(" _{}_", manualText(option.valueName));
            text += ": " + manualText(option.help) + "\n\n";
        }
        const std::string examples = manualText(examplesOf(command.name));
        text += "\tExample:\n\n\t" + replaced(examples, "\n", "\n\n") + "\n\n";
    }
    return text;
}

/// Writes one policy file per right, with the name and text that the daemon would write.
bool writePolicies(const std::string& directory) {
    bool written = true;
    QRLPrivilegedOperationSetKVX().enumerateRightDefinitionsUsingBlock(
        [&](const std::string& right, const Value& definition, const std::string& prompt) {
            const auto policy = policyOfDefinition(definition);
            if (!policy) return void(written = false);
            std::ofstream file(directory + "/" + right + ".policy", std::ios::trunc);
            file << installedPolkitPolicyText(polkitPolicyText(
                right, *policy, prompt,
                QRLPrivilegedOperationSet::nameOfAuthorizationRightLocalizationTable()));
            file.close();
            written = written && file.good();
        });
    return written;
}

bool writeText(std::string_view what, std::ostream& output) {
    if (what == "bash")
        output << bashCompletion();
    else if (what == "zsh")
        output << zshCompletion();
    else if (what == "fish")
        output << fishCompletion();
    else if (what == "manual-commands")
        output << commandsOfManual();
    else if (what == "manual-operations")
        output << "```\n"
               << catalogueTable() << "```\n\n"
               << operationsOfManual() << "# ERROR CODES OF THE OPERATIONS\n\n"
               << errorCodesOfManual();
    else
        return false;
    output.flush();
    return output.good();
}

bool writeData(std::string_view what, const std::string& path) {
    if (what == "policies") return writePolicies(path);
    if (path.empty()) return writeText(what, std::cout);
    std::ofstream file(path, std::ios::trunc);
    return writeText(what, file);
}

}  // namespace
}  // namespace corvalen::cli

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    return corvalen::cli::writeData(argv[1], argc > 2 ? argv[2] : "") ? 0 : 1;
}
