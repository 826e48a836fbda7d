// SPDX-License-Identifier: MIT
// What the commands print.
#include <gmock/gmock.h>
#include <sys/acl.h>
#include <sys/xattr.h>

#include <cmath>

#include "cli/acl_text.hpp"
#include "cli/found_objects.hpp"
#include "cli/operation_runner.hpp"
#include "cli/progress.hpp"
#include "cli/report.hpp"
#include "cli/text.hpp"
#include "support/scratch_folder.hpp"

namespace corvalen::cli {
namespace {

using testing::HasSubstr;

TEST(TextTest, NothingThatActsOnATerminalPasses) {
    const std::pair<std::string, const char*> cases[] = {
        {"plain \xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80",
         "plain \xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80"},
        {"a\033[31m\n\r\t\x7F", "a\\x1B[31m\\x0A\\x0D\\x09\\x7F"},
        {std::string("\0", 1), "\\x00"},
        {"\xC2\x9B", "\\xC2\\x9B"},                                      // CSI in eight bits
        {"\xE2\x80\xAE\xE2\x81\xA6", "\\xE2\\x80\\xAE\\xE2\\x81\\xA6"},  // turned direction
        {"\xD8\x9C\xE2\x80\xA8\xE2\x80\xA9",
         "\\xD8\\x9C\\xE2\\x80\\xA8\\xE2\\x80\\xA9"},           // mark, line ends
        {"\xFF\xC3", "\\xFF\\xC3"},                             // no UTF-8, cut UTF-8
        {"\xC0\x80\xED\xA0\x80", "\\xC0\\x80\\xED\\xA0\\x80"},  // overlong, surrogate
        {"\xF4\x90\x80\x80", "\\xF4\\x90\\x80\\x80"},           // beyond the last character
    };
    for (const auto& [text, shown] : cases)
        EXPECT_EQ(escapedForTerminal(text), shown);
}

TEST(TextTest, AStreamIsEscapedWhereverItIsCut) {
    const std::string text = "a\xE2\x82\xAC\033[2J\xE2\x80\xA8\xFF\n\xF0\x9F";
    for (std::size_t cut = 0; cut <= text.size(); ++cut) {
        TerminalFilter filter;
        std::string shown = filter.pass(text.substr(0, cut));
        shown += filter.pass(text.substr(cut));
        shown += filter.finish();
        EXPECT_EQ(shown, "a\xE2\x82\xAC\\x1B[2J\\xE2\\x80\\xA8\\xFF\n\\xF0\\x9F") << cut;
    }
}

TEST(TextTest, JsonOfEveryKindOfValue) {
    EXPECT_EQ(jsonString("\xE2\x80\xAE\xD8\x9C\xE2\x80\xA8"), R"("\u202e\u061c\u2028")");
    EXPECT_EQ(jsonString("a\"\\\n\x01\x7F\xC2\x85\xC3\xA4"), R"("a\"\\\n\u0001\u007f\u0085)"
                                                             "\xC3\xA4\"");
    const Dictionary everything{
        {"bad", "a\xFF"},
        {"list", Array{Value(1), Value(), Value("x\xFE"), Value(-2.5)}},
        {"flag", true},
        {"big", Value(std::numeric_limits<std::uint64_t>::max())},
        {"nan", Value(std::nan(""))},
        {"data", Data::copy("foo")},
        {"date", Date{-1, 5}},
        {"error", Value(makeError("d", -3, Dictionary{{"k", "v"}}))},
    };
    EXPECT_EQ(jsonObject(everything),
              R"({"bad":"a)"
              "\xEF\xBF\xBD"
              R"(","badBase64":"Yf8=","big":18446744073709551615,)"
              R"("data":"Zm9v","date":"1969-12-31T23:59:59.000000005Z",)"
              R"("error":{"domain":"d","code":-3,"userInfo":{"k":"v"}},"flag":true,)"
              R"("list":[1,null,{"text":"x)"
              "\xEF\xBF\xBD"
              R"(","textBase64":"eP4="},-2.5],"nan":null})");
}

TEST(TextTest, SizesForPeople) {
    const std::pair<std::uint64_t, const char*> cases[] = {
        {0, "0"},          {1023, "1023"},       {1024, "1.0K"},
        {10188, "9.9K"},   {10189, "10K"},       {1023U << 10U, "1023K"},
        {0xFFFFF, "1.0M"}, {1503238553, "1.4G"}, {~std::uint64_t{0}, "16E"}};
    for (const auto& [bytes, text] : cases)
        EXPECT_EQ(humanSize(bytes), text) << bytes;
}

/// A command line with these options.
Arguments with(std::initializer_list<const char*> options) {
    Arguments arguments;
    for (const char* option : options)
        arguments.add(option, "");
    return arguments;
}

TEST(FoundObjectsTest, EachFormOfAHostileName) {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    const Dictionary record{{"Path", "/a\n\xFF"},
                            {"Type", "NSFileTypeDirectory"},
                            {"Size", 1536},
                            {"ModificationDate", Date{0, 0}},
                            {"Mode", 01755}};
    EXPECT_EQ(formatObject(record, ObjectForm::plain, false, false), "/a\n\xFF\n");
    EXPECT_EQ(formatObject(record, ObjectForm::plain, true, false), "/a\\x0A\\xFF\n");
    EXPECT_EQ(formatObject(record, ObjectForm::nullTerminated, true, false),
              std::string("/a\n\xFF\0", 5));
    EXPECT_EQ(formatObject(record, ObjectForm::table, false, false),
              "drwxr-xr-t   1.5K  1970-01-01 00:00  /a\\x0A\\xFF\n");
    EXPECT_EQ(formatObject(record, ObjectForm::table, true, true),
              "drwxr-xr-t            1536  1970-01-01 00:00  /a\\x0A\\xFF\n");
    EXPECT_EQ(formatObject(record, ObjectForm::json, true, false),
              "{\"path\":\"/a\\n\xEF\xBF\xBD\",\"pathBase64\":\"L2EK/w==\",\"type\":\"directory\","
              "\"size\":1536,\"modified\":\"1970-01-01T00:00:00Z\",\"mode\":\"1755\"}\n");
    // A record is what the helper sends: nothing of it is taken for granted.
    EXPECT_EQ(formatObject({}, ObjectForm::table, true, false), "");
    EXPECT_EQ(
        formatObject({{"Path", "/x"}, {"Type", 5}, {"Mode", "?"}}, ObjectForm::json, false, false),
        "{\"path\":\"/x\",\"type\":\"unknown\"}\n");
}

TEST(AnswerTest, ExistenceAndSizeInEachForm) {
    const Dictionary folder{{"ObjectExistence", 1}};
    const Dictionary size{{"Size", 1536}};
    EXPECT_EQ(answerText(folder, View::existence, {}, true), "folder\n");
    EXPECT_EQ(answerText({{"ObjectExistence", 0}}, View::existence, {}, true), "absent\n");
    EXPECT_EQ(answerText(size, View::storageSize, {}, true), "1.5K (1536 bytes)\n");
    EXPECT_EQ(answerText(size, View::storageSize, {}, false), "1536\n");
    EXPECT_EQ(answerText(size, View::storageSize, with({"json"}), true), "{\"size\":1536}\n");
    EXPECT_EQ(answerText(size, View::foundObjects, {}, true), "{\"Size\":1536}\n");
}

TEST(ProgressTest, TheLineFitsAndTakesAnyFraction) {
    EXPECT_EQ(progressLine({0.5, 0, 3.7}, 80), "[############------------]  50%  3 s");
    EXPECT_EQ(progressLine({0, 1000, 2}, 80), "1000 objects (500/s)  2 s");
    EXPECT_THAT(progressLine({1.7, 0, 0}, 80), HasSubstr("] 100%"));
    EXPECT_EQ(progressLine({-1, 0, 0}, 80), "0 s");
    EXPECT_EQ(progressLine({0.5, 1000000, 1}, 10).size(), 10U);
    EXPECT_EQ(progressLine({0, 0, 7, "2 of 3: /a\033\xC3\xA4"}, 80),
              "7 s  2 of 3: /a\\x1B\xC3\xA4");
    EXPECT_EQ(progressLine({0, 0, 7, "\xC3\xA4"}, 6), "7 s  ") << "no half character";
}

TEST(ReportTest, FailuresNameThePathAndSayWhatToDo) {
    EXPECT_EQ(failureText(failureOf("touch-fileobject", "/a\033", makePosixError(ENOENT))),
              "touch-fileobject: /a\\x1B: No such file or directory\n  Check the name: there is "
              "no such object.");
    EXPECT_THAT(failureText(failureOf("modify-kernelsetting", "kernel.x", makePosixError(ENOENT))),
                HasSubstr("sysctl -a"));
    const ErrorRef own = makeError(
        "x.y", 5,
        Dictionary{{std::string(kLocalizedDescriptionKey), "Blocked."},
                   {std::string(kLocalizedRecoverySuggestionKey), "Remove '/a/\n\033[2J'."}});
    EXPECT_EQ(failureText(failureOf("modify-systemfile", "/a/\n\033[2J", own)),
              "modify-systemfile: Blocked.\n  Remove '/a/\n  \\x1B[2J'.");
    for (const auto& [error, code] : {std::pair(own, kExitFailure),
                                      {makeError(kCocoaErrorDomain, 4099), kExitNotReachable},
                                      {makeOSStatusError(-60005), kExitNotAuthorized},
                                      {makePosixError(ECANCELED), kExitNotAuthorized},
                                      {nullptr, kExitSuccess}})
        EXPECT_EQ(exitCodeOf(error), code);
}

TEST(ReportTest, DenialsNameTheirCauseAndRemedy) {
    const ErrorRef refused = makePosixError(EPERM);
    const auto status = [](std::int64_t code) { return makeOSStatusError(code); };
    const struct {
        Denial denial;
        const char* cause;
        const char* remedy;
    } cases[] = {
        {{"r", refused, PasswordPrompt::notNeeded, true, true, true},
         "'r' is not defined",
         "install-rights"},
        {{"r", refused, PasswordPrompt::onThisTerminal, false, true},
         "password was not accepted",
         "pkaction"},
        {{"r", refused, PasswordPrompt::switchedOff, false, true}, "password", "--no-ask-password"},
        {{"r", refused, PasswordPrompt::noTerminal, false, true}, "password", "on a terminal"},
        {{"r", refused, PasswordPrompt::onThisTerminal, false, false},
         "only root",
         "run it as root"},
        {{"r", refused, PasswordPrompt::notNeeded, false, false}, "only root", "run it as root"},
        {{"r", status(-60007), PasswordPrompt::switchedOff},
         "nobody can be asked",
         "--no-ask-password"},
        {{"r", status(-60007), PasswordPrompt::noTerminal}, "nobody can be asked", "on a terminal"},
        {{"r", status(-60008)}, "could not decide", "journalctl"},
        {{"r", status(-60005), PasswordPrompt::notNeeded, true},
         "was denied",
         "corvalenctl status"},
    };
    for (const auto& [denial, cause, remedy] : cases) {
        const DenialText text = denialText(denial);
        EXPECT_THAT(text.message, HasSubstr(cause));
        EXPECT_THAT(text.advice, HasSubstr(remedy)) << cause;
        EXPECT_THAT(text.message, testing::Not(HasSubstr("Operation not permitted")));
    }
}

TEST(ReportTest, JsonHasEverythingThatTheTextHas) {
    const Failure failure{"call", "/\xFF", "a\nb", "c", 130, makePosixError(EPERM), 1204};
    EXPECT_EQ(failureJson(failure),
              R"({"error":{"kind":"interrupted","exitCode":130,"command":"call","subject":"/)"
              "\xEF\xBF\xBD"
              R"(","subjectBase64":"L/8=","message":"a\nb","advice":"c","objectCount":1204,)"
              R"("cause":{"domain":"NSPOSIXErrorDomain","code":1}}})");
    EXPECT_EQ(objectCountText(1204), "1,204 objects");
    EXPECT_EQ(objectCountText(1000000), "1,000,000 objects");
    EXPECT_EQ(objectCountText(1), "1 object");
}

TEST(AclTextTest, GivesTheBytesThatTheKernelKeeps) {
    const test::ScratchFolder folder;
    const std::string file = folder.path("file");
    std::ofstream(file).close();
    for (const char* text :
         {"u::rwx,g::r-x,o::---,u:12345:r--,u:0:rw-,g:65534:--x,m::r-x",
          "user::rw-\ngroup::r--\nother::r--\nuser:daemon:rwx\n", "g:7:r,u::rw,g::-,o::-"}) {
        acl_t list = ::acl_from_text(text);
        ASSERT_NE(list, nullptr);
        if (::acl_valid(list) != 0) ::acl_calc_mask(&list);
        const bool isSet = ::acl_set_file(file.c_str(), ACL_TYPE_ACCESS, list) == 0;
        ::acl_free(list);
        if (!isSet) GTEST_SKIP() << "the temporary folder keeps no access control lists";
        char kept[1024];
        const ssize_t length = ::getxattr(file.c_str(), "system.posix_acl_access", kept, 1024);
        ASSERT_GT(length, 0);
        const std::string_view form(kept, static_cast<std::size_t>(length));
        EXPECT_EQ(aclFromText(text).view(), form) << text;
        if (text[0] != 'g') continue;
        EXPECT_EQ(
            aclFromText(std::string(text) + ",d:g:7:r,default:u::rw, default:g::-,d:o::-").view(),
            std::string(form) + std::string(form));
    }
}

}  // namespace
}  // namespace corvalen::cli
