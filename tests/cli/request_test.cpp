// SPDX-License-Identifier: MIT
// From the words on the command line to the arguments on the wire.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <corvalen/catalogue.hpp>
#include <iomanip>
#include <set>
#include <sstream>

#include "cli/command_table.hpp"
#include "cli/text.hpp"
#include "support/golden.hpp"

namespace corvalen::cli {
namespace {

using Words = std::vector<std::string>;

/// Values in the notation of "call", data in base64; or the error.
std::string typedOrRefused(const std::function<Array()>& make) {
    try {
        std::string text;
        for (const Value& value : make())
            text.append(text.empty() ? "" : " ")
                .append(value.string() != nullptr
                            ? "S:" + *value.string()
                            : (value.data() != nullptr ? "D:" : "N:") + jsonValue(value));
        return text;
    } catch (const UsageError& error) {
        return std::string("refused: ") + error.what();
    }
}

/// The words of a line; those with a blank in them, or nothing, stand in single quotes.
Words inWords(const std::string& line) {
    Words words;
    std::istringstream text(line);
    for (std::string word; text >> std::quoted(word, '\'');)
        words.push_back(word);
    return words;
}

/// The arguments of the request, in the notation of "call", and its question; or why it is refused.
std::string outcomeOf(const std::string& line) {
    const ParsedCommandLine parsed = parseCommandLine(inWords(line));
    if (parsed.command == nullptr) {
        EXPECT_EQ(parsed.exitCode, kExitUsage) << parsed.outputText;
        // The texts of the parser's library differ between its versions.
        const bool isForeign = parsed.errorText.find("Run with --help") != std::string::npos;
        return "refused: " + (isForeign ? "by the parser" : parsed.errorText);
    }
    std::string question;
    const std::string arguments = typedOrRefused([&] {
        const Request request = parsed.command->request(parsed.arguments);
        question = request.question.empty() ? "" : " | " + request.question;
        return request.arguments;
    });
    return arguments + question;
}

/// Relative paths are below this folder.
class RequestTest : public testing::Test {
  protected:
    RequestTest() {
        std::filesystem::current_path(folder.path());
        std::ofstream("content") << "new\n";
        std::ofstream("list") << kList;
    }
    ~RequestTest() override { std::filesystem::current_path(before); }

    static constexpr const char* kList = "# file: x\nuser::rw-\ngroup::r--\nother::---\n";
    const std::filesystem::path before = std::filesystem::current_path();
    test::ScratchFolder folder;
};

TEST_F(RequestTest, EveryCommandBuildsTheArgumentsOfItsOperationOrIsRefused) {
    std::set<std::string> covered;
    const auto command = [&](const std::string& line) {
        const std::string outcome = outcomeOf(line);
        if (!outcome.starts_with("refused")) covered.insert(line.substr(0, line.find(' ')));
        return test::replaced(outcome, folder.path(), "<folder>");
    };
    const auto typed = [](const std::string& text) {
        return typedOrRefused([&] { return Array{parseTypedValue(text)}; });
    };
    test::expectRows("requests.txt", {{"command", command}, {"typed", typed}});
    EXPECT_EQ(covered.size(), operationCatalogue().size()) << "an operation without a command";
    std::ofstream("large").seekp((16 << 20) - (64 << 10)).put('x');
    EXPECT_THROW((void)parseTypedValue("D:@large"), UsageError);
    std::filesystem::resize_file("large", (16 << 20) - (64 << 10));
    EXPECT_EQ(readContent("large").bytes.size(), (16U << 20) - (64U << 10));
}

TEST(LogTest, PointsOfTime) {
    ::setenv("TZ", "Europe/Berlin", 1);
    ::tzset();
    test::expectRows("times.txt", {{"seconds", [](const std::string& text) {
                                        constexpr std::time_t now = 1792936800;
                                        return typedOrRefused([&] {
                                            return Array{parsePointOfTime(text, now) - now};
                                        });
                                    }}});
}

/// In the order of Completion.
constexpr std::string_view kCompleted[] = {"nothing",    "paths",    "directories", "operations",
                                           "utilities",  "users",    "processes",   "hosts",
                                           "on and off", "sort keys"};

/// Every text of the tables, as the help, the manual page and the completions have them.
std::string textOfTables() {
    const auto line = [](std::string_view name, const std::string& values, const auto& row) {
        return fmt::format("  {} {}: {}; completes {}\n", name, values, row.help,
                           kCompleted[static_cast<std::size_t>(row.completion)]);
    };
    const auto options = [&](std::span<const Option> all) {
        std::string text;
        for (const Option& option : all)
            text += line(option.names,
                         std::string(option.valueName) + (option.repeatable ? "..." : ""), option);
        return text;
    };
    std::string text = options(commonOptions());
    for (const Command& command : commandTable()) {
        text += fmt::format("\n{}: {}\n{}\n", command.name, command.summary, command.details);
        for (const Positional& one : command.positionals)
            text +=
                line(one.name,
                     fmt::format("{} to {}", one.minimum,
                                 one.maximum == kUnlimited ? "any" : std::to_string(one.maximum)),
                     one);
        text += options(optionsOfCommand(command)) + std::string(examplesOf(command.name)) + "\n";
    }
    return text;
}

TEST(HelpTest, EveryCommandExplainsItsOptionsAndSucceeds) {
    test::expectGolden("commands.txt", textOfTables());
    const auto shown = [](const std::string& line) {
        const ParsedCommandLine parsed = parseCommandLine(inWords(line));
        EXPECT_EQ(parsed.command, nullptr) << line;
        EXPECT_EQ(parsed.exitCode, kExitSuccess) << line;
        EXPECT_EQ(parsed.errorText, "") << line;
        return parsed.outputText;
    };
    for (const Command& command : commandTable()) {
        std::vector<std::string> parts{std::string(command.details)};
        for (const Option& option : optionsOfCommand(command))
            parts.emplace_back(optionKey(option.names));
        for (const Positional& positional : command.positionals)
            parts.emplace_back(positional.name);
        std::istringstream examples{std::string(examplesOf(command.name))};
        for (std::string line; std::getline(examples, line);) {
            parts.push_back(line);
            const auto start = line.find("corvalenctl ") + 12;
            const std::string words = line.substr(start, line.find('<') - start);
            const ParsedCommandLine parsed = parseCommandLine(inWords(words));
            ASSERT_NE(parsed.command, nullptr) << line << parsed.errorText;
            EXPECT_EQ(parsed.command->name, command.name);
            const bool readsFile = parsed.arguments.has("from") || line.find('|') != line.npos;
            if (parsed.command->request != nullptr && !readsFile) {
                EXPECT_NO_THROW((void)parsed.command->request(parsed.arguments)) << line;
            }
        }
        const std::string help = shown(std::string(command.name) + " --help");
        for (const std::string& part : parts)
            EXPECT_THAT(help, testing::HasSubstr(part));
        for (const char* all : {"--help", "-h"})
            EXPECT_THAT(shown(all), testing::HasSubstr(std::string(command.summary)));
    }
}

}  // namespace
}  // namespace corvalen::cli
