// SPDX-License-Identifier: MIT
// From the words on the command line to the arguments on the wire.
#include <gmock/gmock.h>

#include <corvalen/catalogue.hpp>
#include <iomanip>
#include <set>
#include <sstream>

#include "cli/acl_text.hpp"
#include "cli/call_command.hpp"
#include "cli/command_table.hpp"
#include "cli/helper_commands.hpp"
#include "cli/parser.hpp"
#include "support/scratch_folder.hpp"

namespace corvalen::cli {
namespace {

using Words = std::vector<std::string>;

/// The words of a line; those with a blank in them, or nothing, stand in single quotes.
Words inWords(const std::string& line) {
    Words words;
    std::istringstream text(line);
    for (std::string word; text >> std::quoted(word, '\'');)
        words.push_back(word);
    return words;
}

Request requestOf(const std::string& line) {
    const ParsedCommandLine parsed = parseCommandLine(inWords(line));
    if (parsed.command == nullptr) throw UsageError(parsed.errorText);
    return parsed.command->request(parsed.arguments);
}

std::string errorOf(const std::string& line) {
    const ParsedCommandLine parsed = parseCommandLine(inWords(line));
    if (parsed.command == nullptr) {
        EXPECT_EQ(parsed.exitCode, kExitUsage) << parsed.outputText;
        return parsed.errorText;
    }
    try {
        if (parsed.command->request != nullptr) parsed.command->request(parsed.arguments);
    } catch (const UsageError& error) {
        return error.what();
    }
    return {};
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

TEST_F(RequestTest, EveryCommandBuildsTheArgumentsOfItsOperation) {
    const auto here = [this](const char* name) { return Value(folder.path(name)); };
    const Data content = Data::copy("new\n");
    const struct {
        std::string line;
        Array arguments;
    } cases[] = {
        {"nop", {}},
        {"discard-auth", {}},
        {"prepare-uninstall", {}},
        {"delete-files /a b", {"/a", here("b")}},
        {"create-fileobject ./a", {here("a"), "F"}},
        {"create-fileobject -d '/a b'", {"/a b", "D"}},
        {"create-fileobject /a --executable", {"/a", "X"}},
        {"rename-fileobject /a b", {"/a", here("b")}},
        {"inspect-fileobject '/\xFF\n'", {"/\xFF\n"}},
        {"touch-fileobject .", {folder.path()}},
        {"create-link ../to /link", {"/link", "../to", false}},
        {"create-link --hard to link", {here("link"), here("to"), true}},
        {"delete-fileobjects /a /b", {"0", "1", "/a", "/b"}},
        {"delete-fileobjects -r -k -y /a", {"1", "0", "/a"}},
        {"delete-foldercontents /a -- -b", {"/a", here("-b")}},
        {"modify-systemfile /a -f content", {"/a", content, false}},
        {"modify-systemfile /a --from content --remove-backup", {"/a", content, true}},
        {"modify-protection --lock /a", {"/a", true, false, false}},
        {"modify-protection /a --unlock -r -x", {"/a", false, true, true}},
        {"modify-hfsattr /a --type TEXT --creator ab --hidden",
         {"/a", 0x54455854, 0x61622020, true}},
        {"modify-hfsattr /a --type '' --creator 0xFFFFFFFF --visible", {"/a", 0, ~0U, false}},
        {"modify-acl /a -f list", {"/a", aclFromText(kList)}},
        {"search-agedfiles /a --days 18446744073709551615", {"/a", ~std::uint64_t{0}, false}},
        {"search-agedfiles -x -d 0 /a", {"/a", 0, true}},
        {"search-filenames /a", {"/a", "", "", false}},
        {"search-filenames /a -p Ab -e .txt --folders", {"/a", "Ab", "txt", true}},
        {"search-patterns /a --extension log -n x -p -y -n z -x",
         {"/a", "1", "0", "x", "0", "z", "1", "-y", "2", "log"}},
        {"search-fileorphans /a", {"/a", false}},
        {"inspect-storagesize /a/", {"/a/"}},
        {"prop-permissions /a --mode --owner --expect 250", {"/a", 250, false, 0x2E}},
        {"prop-permissions /a --acl --mark-inherited --group -x", {"/a", 0, true, 0x51}},
        {"prop-permissions /a --owner-mode --group-mode", {"/a", 0, false, 0x0C}},
        {"prop-permissions /a --other-mode", {"/a", 0, false, 0x02}},
        {"modify-powersetting 'Disk Sleep Timer' -1", {"Disk Sleep Timer", -1}},
        {"modify-diskspindown 10", {10}},
        {"modify-kernelsetting vm.swappiness -5", {"vm.swappiness", -5}},
        {"modify-nvram boot-args ''", {"boot-args", ""}},
        {"modify-preferences key '{a = 1;}' --domain x.y --user root",
         {"key", "x.y", "root", "kCFPreferencesAnyHost", "{a = 1;}"}},
        {"modify-preferences key --remove --any-user --current-host",
         {"key", "NSGlobalDomain", "kCFPreferencesAnyUser", "kCFPreferencesCurrentHost", ""}},
        {"modify-sysconf key v", {"corvalenctl", "", "key", "v"}},
        {"modify-sysconf key --remove --file f --session s", {"s", "f", "key", ""}},
        {"terminate-process 2147483647", {0x7FFFFFFF}},
        {"execute-utility chmod -R --help 0644 -- rel",
         {"/", "chmod", "-R", "--help", "0644", "--", "rel"}},
        {"execute-utility --application App lipo", {here("App"), "lipo"}},
        {"execute-utility -q --application -- -- chmod -- a", {here("--"), "chmod", "--", "a"}},
    };
    std::set<std::string_view> covered;
    for (const auto& [line, arguments] : cases) {
        SCOPED_TRACE(line);
        const OperationInfo* operation = findOperation(line.substr(0, line.find(' ')));
        ASSERT_NE(operation, nullptr);
        covered.insert(operation->identifier);
        const Array built = requestOf(line).arguments;
        EXPECT_EQ(built, arguments);
        if (!operation->argumentCount) continue;
        ASSERT_EQ(built.size(), *operation->argumentCount);
        for (std::size_t i = 0; i < built.size(); ++i) {
            const char type = operation->argumentTypes[i];
            EXPECT_EQ(type == 'S', built[i].string() != nullptr);
            EXPECT_EQ(type == 'D', built[i].data() != nullptr);
        }
    }
    EXPECT_EQ(covered.size(), operationCatalogue().size()) << "an operation without a command";
}

TEST_F(RequestTest, WrongUsageIsRefusedWithoutAskingTheHelper) {
    const std::pair<std::string, std::vector<std::string>> wrong[] = {
        {"", {"", "no-such-command", "nop extra", "create-fileobject", "rename-fileobject /a"}},
        {"create-fileobject ", {"''", "/a -d -x"}},
        {"modify-protection /a ", {"", "--lock --unlock"}},
        {"modify-hfsattr /a --hidden ",
         {"--type TEXT", "--type TOOLONG --creator x", "--type 0x100000000 --creator x"}},
        {"modify-acl /a ",
         {"", "nonsense", "u::rw-,g::r--", "u::rw-,u::r--,g::r--,o::-",
          "u::rw-,u:no-such-user:r--,g::r--,o::-"}},
        {"modify-systemfile /a ", {"--from /nonexistent"}},
        {"search-patterns /a ", {"", "--name ''", "--extension ."}},
        {"search-agedfiles /a ",
         {"", "--days -1", "--days 18446744073709551616", "--days 1 --days 2"}},
        {"prop-permissions /a ", {"", "--owner --mark-inherited"}},
        {"modify-kernelsetting ", {"vm.swappiness 5x", "'' 5"}},
        {"modify-preferences key ",
         {"", "v --remove", "v --user root --any-user", "v --user no-such-user",
          "v --domain ../x"}},
        {"modify-sysconf key v ", {"--file ../x"}},
        {"terminate-process ", {"0", "-1", "4294967297"}},
        {"execute-utility ", {"", "--unknown chmod", "lipo"}},
    };
    for (const auto& [command, endings] : wrong)
        for (const std::string& ending : endings)
            EXPECT_NE(errorOf(command + ending), "") << command << ending;
}

TEST(LogTest, PointsOfTime) {
    ::setenv("TZ", "Europe/Berlin", 1);
    ::tzset();
    constexpr std::time_t now = 1792936800;  // 2026-10-25 15:00, the day on which summer time ended
    const std::pair<const char*, std::time_t> cases[] = {{"2h", now - 7200},
                                                         {"-90s", now - 90},
                                                         {"3min", now - 180},
                                                         {"1d", now - 86400},
                                                         {"today", now - 16 * 3600},
                                                         {"yesterday", now - 40 * 3600},
                                                         {"14:30", now - 1800},
                                                         {"2026-10-25 14:30:01", now - 1799},
                                                         {"2026-10-24", now - 40 * 3600}};
    for (const auto& [text, time] : cases)
        EXPECT_EQ(parsePointOfTime(text, now), time) << text;
    for (const char* wrong : {"", "x", "2026-13-01", "25:00", "2 h", "99999999999h", "14:30x"})
        EXPECT_THROW((void)parsePointOfTime(wrong, now), UsageError) << wrong;
}

TEST_F(RequestTest, TypedValuesOfCall) {
    EXPECT_EQ(parseTypedValue("S:"), Value(""));
    EXPECT_EQ(parseTypedValue("S:N:1"), Value("N:1"));
    EXPECT_EQ(parseTypedValue("N:-9223372036854775808"),
              Value(std::numeric_limits<std::int64_t>::min()));
    EXPECT_EQ(parseTypedValue("N:18446744073709551615"), Value(~std::uint64_t{0}));
    EXPECT_EQ(parseTypedValue("N:0.5"), Value(0.5));
    EXPECT_EQ(parseTypedValue("N:true").number()->kind(), Number::Kind::boolean);
    EXPECT_EQ(parseTypedValue("D:00fFA0"), Value(Data{{0x00, 0xFF, 0xA0}}));
    EXPECT_EQ(parseTypedValue("D:"), Value(Data{}));
    EXPECT_EQ(parseTypedValue("D:@content"), Value(Data::copy("new\n")));
    for (const char* wrong : {"", "S", "X:1", "text", "N:", "N:1 ", "N:0x10", "D:abc", "D:zz",
                              "D:@/nonexistent", "D:@/"})
        EXPECT_THROW((void)parseTypedValue(wrong), UsageError) << wrong;
    std::ofstream("large").seekp((16 << 20) - (64 << 10)).put('x');
    EXPECT_THROW((void)parseTypedValue("D:@large"), UsageError);
    std::filesystem::resize_file("large", (16 << 20) - (64 << 10));
    EXPECT_EQ(readContent("large").bytes.size(), (16U << 20) - (64U << 10));
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
