// SPDX-License-Identifier: MIT
// What the commands print.
#include <gtest/gtest.h>

#include <cmath>

#include "cli/operation_output.hpp"
#include "cli/operation_runner.hpp"
#include "cli/report.hpp"
#include "cli/text.hpp"
#include "support/golden.hpp"

namespace corvalen::cli {
namespace {

TEST(TextTest, NothingThatActsOnATerminalPasses) {
    const std::map<std::string, Value> values = {
        {"text", "a\xFF"},
        {"list", Array{Value(1), Value(), Value("x\xFE"), Value(-2.5)}},
        {"Boolean", true},
        {"large number", Value(std::numeric_limits<std::uint64_t>::max())},
        {"no number", Value(std::nan(""))},
        {"data", Data::copy("foo")},
        {"date", Date{-1, 5}},
        {"error", Value(makeError("d", -3, Dictionary{{"k", "v"}}))},
    };
    test::expectRows(
        "texts.txt",
        {{"terminal", [](const std::string& text) { return escapedForTerminal(text); }},
         {"json", jsonString},
         {"json value",
          [&](const std::string& kind) {
              return jsonObject(Dictionary{{kind, values.at(kind)}});
          }},
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

TEST(ReportTest, FailuresAndDenialsNameTheirCauseAndRemedy) {
    const auto denial = [](const std::string& row) {
        std::istringstream words(row);
        int code = 0;
        words >> code;
        Denial refusal{"r", code == 1 ? makePosixError(EPERM) : makeOSStatusError(code)};
        for (std::string word; words >> word;) {
            if (word == "terminal") refusal.prompt = PasswordPrompt::onThisTerminal;
            if (word == "off") refusal.prompt = PasswordPrompt::switchedOff;
            if (word == "nowhere") refusal.prompt = PasswordPrompt::noTerminal;
            refusal.isRoot |= word == "root";
            refusal.hasPolkit |= word == "polkit";
            refusal.isRightMissing |= word == "missing";
        }
        const DenialText text = denialText(refusal);
        return text.message + " | " + text.advice;
    };
    const auto failure = [](const std::string& row) {
        const std::vector<std::string> fields = test::fieldsOf(row);
        Dictionary texts;
        if (fields.size() > 4) texts.set(kLocalizedDescriptionKey, fields[4]);
        if (fields.size() > 5) texts.set(kLocalizedRecoverySuggestionKey, fields[5]);
        const ErrorRef error =
            makeError(fields.at(2), std::stoll(fields.at(3)),
                      fields.size() > 4 ? std::optional(std::move(texts)) : std::nullopt);
        const Failure told = failureOf(fields[0], fields[1], error);
        return failureText(told) + " " + failureJson(told);
    };
    const auto progress = [](const std::string& row) {
        std::istringstream words(row);
        ProgressState state;
        std::size_t width = 0;
        words >> width >> state.fraction >> state.count >> state.seconds >> std::ws;
        std::getline(words, state.activity);
        return progressLine(state, width);
    };
    test::expectRows("reports.txt",
                     {{"denial", denial}, {"failure", failure}, {"progress", progress}});
    for (const auto& [error, code] : {std::pair(makeError("x.y", 5), kExitFailure),
                                      {makeError(kCocoaErrorDomain, 4099), kExitNotReachable},
                                      {makeOSStatusError(-60005), kExitNotAuthorized},
                                      {makePosixError(ECANCELED), kExitNotAuthorized},
                                      {nullptr, kExitSuccess}})
        EXPECT_EQ(exitCodeOf(error), code);
}

}  // namespace
}  // namespace corvalen::cli
