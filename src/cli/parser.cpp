// SPDX-License-Identifier: MIT
#include "cli/command_table.hpp"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <deque>
#include <sstream>

#include "operations/privileged_operation_set.hpp"

namespace corvalen::cli {
namespace {

constexpr const char* kDescription =
    "Asks the privileged helper of this machine to perform operations that need root.";
constexpr const char* kFooter =
    "Exit codes: 0 success, 1 the operation failed, 2 wrong usage, 3 the helper is not\n"
    "reachable, 4 not authorized or the authorization was canceled, 128 and the number of the\n"
    "signal that ended the command (130 for Ctrl-C).";

/// Returns the first word that is neither a common option nor its value; null without one.
const std::string* commandWord(const std::vector<std::string>& words) {
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (words[i].substr(0, 1) != "-") return &words[i];
        if (words[i] == "--socket") ++i;
    }
    return nullptr;
}

/// Returns a line with the names that a mistyped word may stand for; empty for none.
std::string suggestionText(std::string_view word, std::string_view lead,
                           const std::vector<std::string_view>& names) {
    std::string meant;
    for (const std::string_view name : suggestionsFor(word, names))
        meant.append(meant.empty() ? "" : ", ").append(lead).append(name);
    return meant.empty() ? "" : "\nDid you mean: " + meant + "?";
}

/// Returns the message for an unknown command.
std::string unknownCommandText(const std::string& word) {
    std::vector<std::string_view> names;
    for (const Command& command : commandTable())
        names.push_back(command.name);
    return "there is no command '" + word + "'" + suggestionText(word, "", names) +
           "\n'corvalenctl --help' lists all commands.";
}

/// Returns the message for the first unknown long option; empty without one.
std::string unknownOptionText(const std::vector<std::string>& words) {
    const std::string* const word = commandWord(words);
    const Command* const command = word != nullptr ? findCommand(*word) : nullptr;
    if (command == nullptr) return {};
    std::vector<std::string_view> names = {"help"};
    const std::vector<Option> own = optionsOfCommand(*command);
    for (const Option& option : own)
        names.push_back(optionKey(option.names));
    for (const Option& option : commonOptions())
        names.push_back(optionKey(option.names));
    for (const std::string& given : words) {
        if (given == "--") break;
        const std::string_view name = std::string_view(given).substr(0, given.find('='));
        if (name.substr(0, 2) != "--") continue;
        const std::string_view key = name.substr(2);
        if (std::find(names.begin(), names.end(), key) != names.end()) continue;
        return "there is no option " + std::string(name) + suggestionText(key, "--", names) +
               "\n'corvalenctl " + *word + " --help' lists all options.";
    }
    return {};
}

/// The values that CLI11 read for one option. CLI11 keeps a reference to it.
struct Slot {
    std::string key;
    std::vector<std::string> values;
    CLI::Option* option = nullptr;
};

class Parser {
  public:
    Parser() : _app(kDescription, "corvalenctl") {
        _app.footer(kFooter);
        _app.require_subcommand(1);
        _app.set_version_flag(
            "--version", "corvalenctl " + QRLPrivilegedOperationSetKVX().implementationVersion(),
            "show the version of this program");
        addOptions(_app, commonOptions(), _commonSlots);
        for (const Command& command : commandTable())
            addCommand(command);
    }

    ParsedCommandLine parse(const std::vector<std::string>& words) {
        std::vector<std::string> reversed(words.rbegin(), words.rend());
        try {
            _app.parse(reversed);
            return collect();
        } catch (const CLI::ExtrasError& error) {
            ParsedCommandLine parsed = refusal(error);
            if (std::string text = unknownOptionText(words); !text.empty())
                parsed.errorText.swap(text);
            return parsed;
        } catch (const CLI::ParseError& error) {
            return refusal(error);
        } catch (const UsageError& error) {
            ParsedCommandLine parsed;
            parsed.exitCode = kExitUsage;
            parsed.errorText = error.what();
            return parsed;
        }
    }

  private:
    struct Subcommand {
        const Command* command;
        CLI::App* app;
        std::deque<Slot> slots;
    };

    static void addOptions(CLI::App& app, std::span<const Option> options,
                           std::deque<Slot>& slots) {
        for (const Option& option : options) {
            Slot& slot =
                slots.emplace_back(Slot{std::string(optionKey(option.names)), {}, nullptr});
            const std::string names(option.names);
            const std::string help(option.help);
            if (option.valueName.empty()) {
                slot.option = app.add_flag(names, help)->disable_flag_override();
                continue;
            }
            slot.option = app.add_option(names, slot.values, help);
            slot.option->type_name(std::string(option.valueName))->expected(1);
            slot.option->allow_extra_args(false)->multi_option_policy(
                option.repeatable ? CLI::MultiOptionPolicy::TakeAll
                                  : CLI::MultiOptionPolicy::Throw);
        }
    }

    static void addPositionals(Subcommand& subcommand) {
        for (const Positional& positional : subcommand.command->positionals) {
            Slot& slot =
                subcommand.slots.emplace_back(Slot{std::string(positional.name), {}, nullptr});
            slot.option = subcommand.app->add_option(std::string(positional.name), slot.values,
                                                     std::string(positional.help));
            slot.option->type_name("")->expected(1);
            if (positional.maximum == kUnlimited)
                slot.option->expected(static_cast<int>(positional.minimum),
                                      CLI::detail::expected_max_vector_size);
            else
                slot.option->allow_extra_args(false);
            if (positional.minimum > 0) slot.option->required();
        }
    }

    void addCommand(const Command& command) {
        CLI::App* app =
            _app.add_subcommand(std::string(command.name), std::string(command.summary));
        app->footer(
            (command.passThrough ? passThroughFooter(command) : std::string(command.details)) +
            examplesFooter(command));
        Subcommand& subcommand = _subcommands.emplace_back(Subcommand{&command, app, {}});
        addOptions(*app, optionsOfCommand(command), subcommand.slots);
        addOptions(*app, commonOptions(), subcommand.slots);
        if (command.passThrough)
            app->prefix_command();
        else
            addPositionals(subcommand);
    }

    static std::string examplesFooter(const Command& command) {
        std::string text = command.details.empty() && !command.passThrough ? "" : "\n\n";
        std::string_view lines = examplesOf(command.name);
        text += lines.find('\n') == lines.npos ? "Example:" : "Examples:";
        while (!lines.empty()) {
            const std::string_view line = lines.substr(0, lines.find('\n'));
            text.append("\n  ").append(line);
            lines.remove_prefix(std::min(line.size() + 1, lines.size()));
        }
        return text;
    }

    /// Describes the positionals that CLI11 is not given, since it would parse their options.
    static std::string passThroughFooter(const Command& command) {
        std::string usage = "After the options:";
        std::string list;
        for (const Positional& positional : command.positionals) {
            const bool many = positional.maximum == kUnlimited;
            usage += " " + std::string(positional.name) + (many ? "..." : "");
            list +=
                "  " + std::string(positional.name) + "  " + std::string(positional.help) + "\n";
        }
        return usage + "\n" + list + "\n" + std::string(command.details);
    }

    static void takeSlots(const std::deque<Slot>& slots, Arguments& arguments) {
        for (const Slot& slot : slots) {
            if (slot.option->count() == 0) continue;
            if (slot.values.empty()) arguments.add(slot.key, {});
            for (const std::string& value : slot.values)
                arguments.add(slot.key, value);
        }
    }

    /// Assigns the words from the first positional on to the positionals in order.
    static void takeRemaining(const Subcommand& subcommand, Arguments& arguments) {
        std::vector<std::string> words = subcommand.app->remaining();
        if (!words.empty() && words.front().front() == '-' && words.front() != "--")
            throw UsageError("there is no option " + words.front());
        std::size_t next = !words.empty() && words.front() == "--" ? 1 : 0;
        for (const Positional& positional : subcommand.command->positionals) {
            std::size_t taken = 0;
            for (; taken < positional.maximum && next < words.size(); ++taken)
                arguments.add(positional.name, words[next++]);
            if (taken < positional.minimum)
                throw UsageError(std::string(positional.name) + " is required");
        }
    }

    ParsedCommandLine collect() {
        ParsedCommandLine parsed;
        takeSlots(_commonSlots, parsed.arguments);
        for (const Subcommand& subcommand : _subcommands) {
            if (!subcommand.app->parsed()) continue;
            parsed.command = subcommand.command;
            takeSlots(subcommand.slots, parsed.arguments);
            if (subcommand.command->passThrough) takeRemaining(subcommand, parsed.arguments);
        }
        return parsed;
    }

    ParsedCommandLine refusal(const CLI::ParseError& error) {
        std::ostringstream output;
        std::ostringstream errors;
        const int code = _app.exit(error, output, errors);
        ParsedCommandLine parsed;
        parsed.exitCode = code == 0 ? kExitSuccess : kExitUsage;
        parsed.outputText = output.str();
        parsed.errorText = errors.str();
        while (!parsed.errorText.empty() && parsed.errorText.back() == '\n')
            parsed.errorText.pop_back();
        return parsed;
    }

    CLI::App _app;
    std::deque<Slot> _commonSlots;
    std::deque<Subcommand> _subcommands;
};

bool takesValue(const Command& command, std::string_view word) {
    const auto names = [word](const Option& option) {
        const std::string all = "," + std::string(option.names) + ",";
        return !option.valueName.empty() && all.find("," + std::string(word) + ",") != all.npos;
    };
    const std::vector<Option> own = optionsOfCommand(command);
    return std::any_of(own.begin(), own.end(), names) ||
           std::any_of(commonOptions().begin(), commonOptions().end(), names);
}

/// Removes the "--" between the options of a command and the words that it passes on.
void removeMarkerBeforeRest(std::vector<std::string>& words, std::size_t first,
                            const Command& command) {
    for (std::size_t i = first; i < words.size() && words[i].substr(0, 1) == "-"; ++i) {
        if (words[i] == "--") return void(words.erase(words.begin() + static_cast<long>(i)));
        if (takesValue(command, words[i])) ++i;
    }
}

/// Removes "--", behind which CLI11 gives words to the parent once a list of positionals has begun.
/// The words behind it are paths; one with a leading dash gets a leading "./" instead.
std::vector<std::string> withoutMarker(std::vector<std::string> words) {
    const auto marker = std::find(words.begin(), words.end(), "--");
    const auto name = std::find_if(words.begin(), marker, [](const std::string& word) {
        return findCommand(word) != nullptr;
    });
    if (marker == words.end() || name == marker) return words;
    const Command& command = *findCommand(*name);
    if (command.passThrough) {
        removeMarkerBeforeRest(words, static_cast<std::size_t>(name - words.begin()) + 1, command);
        return words;
    }
    const auto positionals = command.positionals;
    const bool isPathList = !positionals.empty() && positionals.back().maximum == kUnlimited;
    if (!isPathList) return words;
    for (auto word = std::next(marker); word != words.end(); ++word)
        if (word->substr(0, 1) == "-") word->insert(0, "./");
    words.erase(marker);
    return words;
}

/// CLI11 reads "[a,b]" among many positionals as a list, and "++" as the end of a command. They are
/// paths; a leading "./" makes them others to CLI11 only.
std::vector<std::string> withPathsShielded(std::vector<std::string> words) {
    auto word = std::find_if(words.begin(), words.end(),
                             [](const std::string& each) { return findCommand(each) != nullptr; });
    if (word == words.end()) return words;
    const Command& command = *findCommand(*word);
    if (command.passThrough || command.positionals.empty() ||
        command.positionals.back().maximum != kUnlimited)
        return words;
    for (++word; word != words.end(); ++word)
        if (*word == "++" || (word->starts_with('[') && word->ends_with(']')))
            word->insert(0, "./");
    return words;
}

bool asksForJson(const std::vector<std::string>& words) {
    const auto marker = std::find(words.begin(), words.end(), "--");
    return std::find(words.begin(), marker, "--json") != marker;
}

}  // namespace

ParsedCommandLine parseCommandLine(const std::vector<std::string>& words) {
    ParsedCommandLine parsed;
    const std::string* const word = commandWord(words);
    if (word != nullptr && findCommand(*word) == nullptr) {
        parsed.exitCode = kExitUsage;
        parsed.errorText = unknownCommandText(*word);
    } else {
        parsed = Parser().parse(withPathsShielded(withoutMarker(words)));
    }
    parsed.wantsJson =
        parsed.command != nullptr ? parsed.arguments.has("json") : asksForJson(words);
    return parsed;
}

}  // namespace corvalen::cli
