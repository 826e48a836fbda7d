// SPDX-License-Identifier: MIT
// What the commands print.
#include <gmock/gmock.h>

#include <cmath>

#include "cli/found_objects.hpp"
#include "cli/operation_runner.hpp"
#include "cli/progress.hpp"
#include "cli/report.hpp"
#include "cli/text.hpp"
#include "support/golden.hpp"

namespace corvalen::cli {
namespace {

using testing::HasSubstr;

TEST(TextTest, NothingThatActsOnATerminalPasses) {
    test::expectRows(
        "texts.txt",
        {{"terminal", [](const std::string& text) { return escapedForTerminal(text); }},
         {"json", jsonString},
         {"size", [](const std::string& bytes) { return humanSize(std::stoull(bytes)); }},
         {"count", [](const std::string& text) { return objectCountText(std::stoull(text)); }}});
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

/// Reads words as options of a command line.
Arguments optionsOf(const std::string& row) {
    Arguments arguments;
    std::istringstream words(row);
    for (std::string word; words >> word;)
        arguments.add(word, "");
    return arguments;
}

TEST(FoundObjectsTest, EachFormOfAHostileName) {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    const Dictionary hostile{{"Path", "/a\n\xFF"},
                             {"Type", "NSFileTypeDirectory"},
                             {"Size", 1536},
                             {"ModificationDate", Date{0, 0}},
                             {"Mode", 01755}};
    // A record is what the helper sends: nothing of it is taken for granted.
    const Dictionary wrong{{"Path", "/x"}, {"Type", 5}, {"Mode", "?"}};
    const auto object = [&](const std::string& row) {
        const Arguments words = optionsOf(row);
        return formatObject(words.has("wrong")   ? wrong
                            : words.has("empty") ? Dictionary()
                                                 : hostile,
                            words.has("table")  ? ObjectForm::table
                            : words.has("json") ? ObjectForm::json
                            : words.has("null") ? ObjectForm::nullTerminated
                                                : ObjectForm::plain,
                            words.has("terminal"), words.has("bytes"));
    };
    const auto answer = [](const std::string& row) {
        const Arguments words = optionsOf(row);
        return answerText({{"ObjectExistence", words.has("folder") ? 1 : 0}, {"Size", 1536}},
                          words.has("existence") ? View::existence
                          : words.has("size")    ? View::storageSize
                                                 : View::foundObjects,
                          words, words.has("terminal"));
    };
    test::expectRows("objects.txt", {{"object", object}, {"answer", answer}});
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
    test::expectRows(
        "denials.txt",
        {{"denial", [](const std::string& row) {
              std::istringstream words(row);
              int code = 0;
              words >> code;
              Denial denial{"r", code == 1 ? makePosixError(EPERM) : makeOSStatusError(code)};
              for (std::string word; words >> word;) {
                  if (word == "terminal") denial.prompt = PasswordPrompt::onThisTerminal;
                  if (word == "off") denial.prompt = PasswordPrompt::switchedOff;
                  if (word == "nowhere") denial.prompt = PasswordPrompt::noTerminal;
                  denial.isRoot |= word == "root";
                  denial.hasPolkit |= word == "polkit";
                  denial.isRightMissing |= word == "missing";
              }
              const DenialText text = denialText(denial);
              return text.message + " | " + text.advice;
          }}});
}

TEST(ReportTest, JsonHasEverythingThatTheTextHas) {
    const Failure failure{"call", "/\xFF", "a\nb", "c", 130, makePosixError(EPERM), 1204};
    EXPECT_EQ(failureJson(failure),
              R"({"error":{"kind":"interrupted","exitCode":130,"command":"call","subject":"/)"
              "\xEF\xBF\xBD"
              R"(","subjectBase64":"L/8=","message":"a\nb","advice":"c","objectCount":1204,)"
              R"("cause":{"domain":"NSPOSIXErrorDomain","code":1}}})");
}

}  // namespace
}  // namespace corvalen::cli
