// SPDX-License-Identifier: MIT
// From the words on the command line to the arguments on the wire.
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

/// The arguments of the request, in the notation of "call"; or why it is refused.
std::string outcomeOf(const std::string& line) {
    const ParsedCommandLine parsed = parseCommandLine(inWords(line));
    if (parsed.command == nullptr) {
        EXPECT_EQ(parsed.exitCode, kExitUsage) << parsed.outputText;
        // The texts of the parser's library differ between its versions.
        const bool isForeign = parsed.errorText.find("Run with --help") != std::string::npos;
        return "refused: " + (isForeign ? "by the parser" : parsed.errorText);
    }
    return typedOrRefused([&] { return parsed.command->request(parsed.arguments).arguments; });
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

TEST(HelpTest, EveryCommandExplainsItsOptionsAndSucceeds) {
    const auto expectShown = [](const std::string& line, const std::vector<std::string>& texts) {
        const ParsedCommandLine parsed = parseCommandLine(inWords(line));
        EXPECT_EQ(parsed.command, nullptr) << line;
        EXPECT_EQ(parsed.exitCode, kExitSuccess) << line;
        EXPECT_EQ(parsed.errorText, "") << line;
        for (const std::string& text : texts)
            EXPECT_THAT(parsed.outputText, testing::HasSubstr(text)) << line;
    };
    for (const Command& command : commandTable()) {
        std::vector<std::string> parts;
        for (const Option& option : optionsOfCommand(command))
            parts.emplace_back(optionKey(option.names));
        for (const Positional& positional : command.positionals)
            parts.emplace_back(positional.name);
        std::istringstream examples{std::string(examplesOf(command.name))};
        EXPECT_FALSE(examples.str().empty()) << command.name;
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
        expectShown(std::string(command.name) + " --help", parts);
        for (const char* help : {"--help", "-h"})
            expectShown(help, {std::string(command.summary)});
    }
}

}  // namespace
}  // namespace corvalen::cli
