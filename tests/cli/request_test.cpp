// SPDX-License-Identifier: MIT
// From the words on the command line to the arguments on the wire.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <corvalen/catalogue.hpp>
#include <filesystem>
#include <fstream>
#include <set>

#include "cli/call_command.hpp"
#include "cli/command_table.hpp"
#include "cli/parser.hpp"

namespace corvalen::cli {
namespace {

using Words = std::vector<std::string>;

/// Relative paths are below this folder.
class RequestTest : public testing::Test {
  protected:
    void SetUp() override {
        std::string name = (std::filesystem::temp_directory_path() / "corvalen.XXXXXX").string();
        ASSERT_NE(::mkdtemp(name.data()), nullptr);
        folder = std::filesystem::canonical(name).string();
        before = std::filesystem::current_path();
        std::filesystem::current_path(folder);
        std::ofstream("content") << "new\n";
        std::ofstream("list") << "# file: x\nuser::rw-\ngroup::r--\nother::---\n";
    }
    void TearDown() override {
        std::filesystem::current_path(before);
        std::filesystem::remove_all(folder);
    }

    static Request requestOf(const Words& words) {
        const ParsedCommandLine parsed = parseCommandLine(words);
        if (parsed.command == nullptr) throw UsageError(parsed.errorText);
        return parsed.command->request(parsed.arguments);
    }

    std::string folder;
    std::filesystem::path before;
};

std::string errorOf(const Words& words) {
    try {
        const ParsedCommandLine parsed = parseCommandLine(words);
        if (parsed.command == nullptr) {
            EXPECT_EQ(parsed.exitCode, kExitUsage) << parsed.outputText;
            return parsed.errorText;
        }
        if (parsed.command->request != nullptr) parsed.command->request(parsed.arguments);
    } catch (const UsageError& error) {
        return error.what();
    }
    return {};
}

Data kernelList(std::initializer_list<std::uint8_t> bytes) {
    return Data{bytes};
}

TEST_F(RequestTest, EveryCommandBuildsTheArgumentsOfItsOperation) {
    const auto here = [this](const std::string& name) { return Value(folder + "/" + name); };
    const Value yes(true);
    const Value no(false);
    const Value zero("0");
    const Value one("1");
    const Value two("2");
    const struct {
        Words words;
        Array arguments;
    } cases[] = {
        {{"nop"}, {}},
        {{"discard-auth"}, {}},
        {{"prepare-uninstall"}, {}},
        {{"delete-files", "/a", "b"}, {"/a", here("b")}},
        {{"create-fileobject", "./a"}, {here("a"), "F"}},
        {{"create-fileobject", "-d", "/a b"}, {"/a b", "D"}},
        {{"create-fileobject", "/a", "--executable"}, {"/a", "X"}},
        {{"rename-fileobject", "/a", "b"}, {"/a", here("b")}},
        {{"inspect-fileobject", "/\xFF\n"}, {"/\xFF\n"}},
        {{"touch-fileobject", "."}, {folder}},
        {{"create-link", "../to", "/link"}, {"/link", "../to", no}},
        {{"create-link", "--hard", "to", "link"}, {here("link"), here("to"), yes}},
        {{"delete-fileobjects", "/a", "/b"}, {zero, one, "/a", "/b"}},
        {{"delete-fileobjects", "-r", "-k", "-y", "/a"}, {one, zero, "/a"}},
        {{"delete-foldercontents", "/a", "--", "-b"}, {"/a", here("-b")}},
        {{"modify-systemfile", "/a", "-f", "content"}, {"/a", Data::copy("new\n"), no}},
        {{"modify-systemfile", "/a", "--from", "content", "--remove-backup"},
         {"/a", Data::copy("new\n"), yes}},
        {{"modify-protection", "--lock", "/a"}, {"/a", yes, no, no}},
        {{"modify-protection", "/a", "--unlock", "-r", "-x"}, {"/a", no, yes, yes}},
        {{"modify-hfsattr", "/a", "--type", "TEXT", "--creator", "ab", "--hidden"},
         {"/a", 0x54455854U, 0x61622020U, yes}},
        {{"modify-hfsattr", "/a", "--type", "", "--creator", "0xFFFFFFFF", "--visible"},
         {"/a", 0U, 0xFFFFFFFFU, no}},
        {{"modify-acl", "/a", "-f", "list"},
         {"/a",
          kernelList({2, 0, 0,    0,    1,    0,    6,    0, 0xFF, 0xFF, 0xFF, 0xFF, 4,    0,
                      4, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0x20, 0, 0,    0,    0xFF, 0xFF, 0xFF, 0xFF})}},
        {{"search-agedfiles", "/a", "--days", "18446744073709551615"},
         {"/a", std::uint64_t{0xFFFFFFFFFFFFFFFF}, no}},
        {{"search-agedfiles", "-x", "-d", "0", "/a"}, {"/a", std::uint64_t{0}, yes}},
        {{"search-filenames", "/a"}, {"/a", "", "", no}},
        {{"search-filenames", "/a", "-p", "Ab", "-e", ".txt", "--folders"},
         {"/a", "Ab", "txt", yes}},
        {{"search-patterns", "/a", "--extension", "log", "-n", "x", "-p", "-y", "-n", "z", "-x"},
         {"/a", one, zero, "x", zero, "z", one, "-y", two, "log"}},
        {{"search-fileorphans", "/a"}, {"/a", no}},
        {{"inspect-storagesize", "/a/"}, {"/a/"}},
        {{"prop-permissions", "/a", "--mode", "--owner", "--expect", "250"},
         {"/a", std::uint64_t{250}, no, std::uint64_t{0x2E}}},
        {{"prop-permissions", "/a", "--acl", "--mark-inherited", "--group", "-x"},
         {"/a", std::uint64_t{0}, yes, std::uint64_t{0x51}}},
        {{"prop-permissions", "/a", "--owner-mode", "--group-mode"},
         {"/a", std::uint64_t{0}, no, std::uint64_t{0x0C}}},
        {{"prop-permissions", "/a", "--other-mode"},
         {"/a", std::uint64_t{0}, no, std::uint64_t{0x02}}},
        {{"modify-powersetting", "Disk Sleep Timer", "-1"}, {"Disk Sleep Timer", std::int64_t{-1}}},
        {{"modify-diskspindown", "10"}, {std::uint64_t{10}}},
        {{"modify-kernelsetting", "vm.swappiness", "-5"}, {"vm.swappiness", std::int64_t{-5}}},
        {{"modify-nvram", "boot-args", ""}, {"boot-args", ""}},
        {{"modify-preferences", "key", "{a = 1;}", "--domain", "x.y", "--user", "root"},
         {"key", "x.y", "root", "kCFPreferencesAnyHost", "{a = 1;}"}},
        {{"modify-preferences", "key", "--remove", "--any-user", "--current-host"},
         {"key", "NSGlobalDomain", "kCFPreferencesAnyUser", "kCFPreferencesCurrentHost", ""}},
        {{"modify-sysconf", "key", "v"}, {"corvalenctl", "", "key", "v"}},
        {{"modify-sysconf", "key", "--remove", "--file", "f", "--session", "s"},
         {"s", "f", "key", ""}},
        {{"terminate-process", "2147483647"}, {std::uint64_t{0x7FFFFFFF}}},
        {{"execute-utility", "chmod", "-R", "--help", "0644", "--", "rel"},
         {"/", "chmod", "-R", "--help", "0644", "--", "rel"}},
        {{"execute-utility", "--application", "App", "lipo"}, {here("App"), "lipo"}},
        {{"execute-utility", "-q", "--application", "--", "--", "chmod", "--", "a"},
         {here("--"), "chmod", "--", "a"}},
    };
    std::set<std::string_view> covered;
    for (const auto& one_ : cases) {
        const std::string words = testing::PrintToString(one_.words);
        const OperationInfo* operation = findOperation(one_.words[0]);
        ASSERT_NE(operation, nullptr) << words;
        covered.insert(operation->identifier);
        Array built;
        ASSERT_NO_THROW(built = requestOf(one_.words).arguments) << words;
        EXPECT_EQ(built, one_.arguments) << words;
        if (!operation->argumentCount) continue;
        ASSERT_EQ(built.size(), *operation->argumentCount) << words;
        for (std::size_t i = 0; i < built.size(); ++i) {
            const char type = operation->argumentTypes[i];
            EXPECT_EQ(type == 'S', built[i].string() != nullptr) << words;
            EXPECT_EQ(type == 'D', built[i].data() != nullptr) << words;
        }
    }
    EXPECT_EQ(covered.size(), operationCatalogue().size()) << "an operation without a command";
}

TEST_F(RequestTest, WrongUsageIsRefusedWithoutAskingTheHelper) {
    const Words cases[] = {
        {},
        {"no-such-command"},
        {"nop", "extra"},
        {"create-fileobject"},
        {"create-fileobject", ""},
        {"create-fileobject", "/a", "-d", "-x"},
        {"rename-fileobject", "/a"},
        {"modify-protection", "/a"},
        {"modify-protection", "/a", "--lock", "--unlock"},
        {"modify-hfsattr", "/a", "--type", "TEXT", "--hidden"},
        {"modify-hfsattr", "/a", "--type", "TOOLONG", "--creator", "x", "--hidden"},
        {"modify-hfsattr", "/a", "--type", "0x100000000", "--creator", "x", "--hidden"},
        {"modify-acl", "/a"},
        {"modify-acl", "/a", "nonsense"},
        {"modify-acl", "/a", "u::rw-,g::r--"},
        {"modify-acl", "/a", "u::rw-,u::r--,g::r--,o::-"},
        {"modify-acl", "/a", "u::rw-,u:no-such-user:r--,g::r--,o::-"},
        {"modify-systemfile", "/a", "--from", "/nonexistent"},
        {"search-patterns", "/a"},
        {"search-patterns", "/a", "--name", ""},
        {"search-patterns", "/a", "--extension", "."},
        {"search-agedfiles", "/a"},
        {"search-agedfiles", "/a", "--days", "-1"},
        {"search-agedfiles", "/a", "--days", "18446744073709551616"},
        {"search-agedfiles", "/a", "--days", "1", "--days", "2"},
        {"prop-permissions", "/a"},
        {"prop-permissions", "/a", "--owner", "--mark-inherited"},
        {"modify-kernelsetting", "vm.swappiness", "5x"},
        {"modify-kernelsetting", "", "5"},
        {"modify-preferences", "key"},
        {"modify-preferences", "key", "v", "--remove"},
        {"modify-preferences", "key", "v", "--user", "root", "--any-user"},
        {"modify-preferences", "key", "v", "--user", "no-such-user"},
        {"modify-preferences", "key", "v", "--domain", "../x"},
        {"modify-sysconf", "key", "v", "--file", "../x"},
        {"terminate-process", "0"},
        {"terminate-process", "-1"},
        {"terminate-process", "4294967297"},
        {"execute-utility"},
        {"execute-utility", "--unknown", "chmod"},
        {"execute-utility", "lipo"},
    };
    for (const Words& words : cases)
        EXPECT_NE(errorOf(words), "") << testing::PrintToString(words);
}

TEST_F(RequestTest, OnlyDestructiveRequestsAsk) {
    EXPECT_EQ(requestOf({"delete-fileobjects", "/a"}).question, "");
    EXPECT_THAT(requestOf({"delete-fileobjects", "-r", "/a"}).question, testing::HasSubstr("'/a'"));
    EXPECT_THAT(requestOf({"delete-fileobjects", "-r", "/a", "/b"}).question,
                testing::HasSubstr("2 objects"));
    EXPECT_NE(requestOf({"delete-foldercontents", "/a"}).question, "");
    EXPECT_NE(requestOf({"prop-permissions", "/a", "--mode"}).question, "");
    EXPECT_EQ(requestOf({"touch-fileobject", "/a"}).question, "");
    EXPECT_EQ(errorOf({"modify-systemfile", "/a", "--from", "/none"}),
              "/none: No such file or directory");
    EXPECT_EQ(errorOf({"modify-diskspindown", "-1"}), "MINUTES: '-1' must not be negative");
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
    EXPECT_THROW(parseTypedValue("D:@large"), UsageError);
    std::filesystem::resize_file("large", (16 << 20) - (64 << 10));
    EXPECT_EQ(readContent("large").bytes.size(), (16U << 20) - (64U << 10));
}

TEST(HelpTest, EveryCommandExplainsItsOptionsAndSucceeds) {
    for (const Words& words : {Words{"--help"}, Words{"-h"}}) {
        const ParsedCommandLine parsed = parseCommandLine(words);
        EXPECT_EQ(parsed.exitCode, kExitSuccess);
        for (const Command& command : commandTable())
            EXPECT_THAT(parsed.outputText, testing::HasSubstr(std::string(command.summary)));
    }
    for (const Command& command : commandTable()) {
        const ParsedCommandLine parsed = parseCommandLine({std::string(command.name), "--help"});
        EXPECT_EQ(parsed.command, nullptr);
        EXPECT_EQ(parsed.exitCode, kExitSuccess) << command.name;
        EXPECT_EQ(parsed.errorText, "") << command.name;
        for (const Option& option : optionsOfCommand(command))
            EXPECT_THAT(parsed.outputText, testing::HasSubstr(std::string(optionKey(option.names))))
                << command.name;
        for (const Positional& positional : command.positionals)
            EXPECT_THAT(parsed.outputText, testing::HasSubstr(std::string(positional.name)))
                << command.name;
    }
}

TEST(HelpTest, OptionsOfEveryCommandMayStandBeforeAndAfterIt) {
    for (const Words& words :
         {Words{"--socket", "/s", "-q", "nop"}, Words{"nop", "--socket", "/s", "-q"}}) {
        const ParsedCommandLine parsed = parseCommandLine(words);
        ASSERT_NE(parsed.command, nullptr);
        EXPECT_EQ(parsed.arguments.text("socket"), "/s");
        EXPECT_TRUE(parsed.arguments.has("quiet"));
    }
}

}  // namespace
}  // namespace corvalen::cli
