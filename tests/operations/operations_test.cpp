// SPDX-License-Identifier: MIT
// The catalogue, rights, errors and their texts, and the conversion of arguments.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libintl.h>

#include <clocale>
#include <filesystem>
#include <fstream>

#include "operations/names.hpp"
#include "operations/operation_arguments.hpp"
#include "operations/privileged_operation_set.hpp"
#include "operations/request_details.hpp"
#include "support/message_catalogue.hpp"
#include "support/scratch_folder.hpp"

namespace corvalen {
namespace {

using ::testing::AnyOf;
using ::testing::HasSubstr;

TEST(Descriptor, AcceptsOnlyConsistentRecordsAndReportsContradictions) {
    enum Outcome { accepted, refused, reported };
    const std::pair<StaticOperationDescription, Outcome> cases[] = {
        {{1, "a", 0, 0, 0, nullptr, "p"}, accepted},
        {{1, "a", 2, 1, 2, "SD", "p"}, accepted},
        {{1, "a", 1, 0x10000, kVariableArgumentCount, nullptr, "p"}, accepted},
        {{1, nullptr, 0, 0, 0, nullptr, "p"}, refused},
        {{1, "a", 0, 0, 0, nullptr, nullptr}, refused},
        {{1, "a", 3, 0, 0, nullptr, "p"}, refused},
        {{77, "", 0, 0, 0, nullptr, "p"}, reported},
        {{77, "a", 0, 0, 0, nullptr, ""}, reported},
        {{77, "a", 0, 257, 0, nullptr, "p"}, reported},
        {{77, "a", 0, 0, 3, "SD", "p"}, reported},
        {{77, "a", 0, 0, -1, nullptr, "p"}, reported},
        {{77, "a", 0, 0, kVariableArgumentCount, "S", "p"}, reported},
    };
    for (const auto& item : cases) {
        const auto& [record, outcome] = item;
        SCOPED_TRACE(&item - cases);
        testing::internal::CaptureStderr();
        const auto operation = QRLPrivilegedOperation::initWithStaticDescription(record);
        const auto log = testing::internal::GetCapturedStderr();
        EXPECT_EQ(operation != nullptr, outcome == accepted);
        EXPECT_EQ(log.empty(), outcome != reported);
        EXPECT_THAT(log, AnyOf("", HasSubstr("code 77 contains inconsistent data")));
    }
}

TEST(Descriptor, NeedsAUsablePolicyAndReadsBothStylesOfFeedback) {
    for (const Value& unusable : {Value(""), Value(Dictionary()), Value(1), Value()})
        EXPECT_EQ(QRLPrivilegedOperation::initWithIdentifier("a", unusable, false, false, 0,
                                                             std::nullopt, "p"),
                  nullptr);
    const auto output =
        QRLPrivilegedOperation::initWithStaticDescription({1, "a", 0, 512, 0, nullptr, "p"});
    EXPECT_TRUE(output->isSupportingLiveOutput() && !output->isSupportingProgressFeedback());
}

TEST(Descriptor, FormsTheNameOfItsMethodFromLettersOnly) {
    const std::pair<const char*, const char*> rows[] = {{"a--b", "AB"},
                                                        {"-x", "X"},
                                                        {"set-v2-mode", "SetVMode"},
                                                        {"modify-nVRAM_x", "ModifyNvramx"}};
    for (const auto& [identifier, form] : rows)
        EXPECT_EQ(QRLPrivilegedOperation::initWithStaticDescription(
                      {1, identifier, 0, 0, 0, nullptr, "p"})
                      ->operationIdentifierForExecutionSelector(),
                  form);
}

TEST(RequestDetails, NameTheObjectAndMisleadNobody) {
    const QRLPrivilegedOperationSetKVX set;
    const auto times = [](std::string_view text, int count) {
        std::string all;
        while (count-- > 0)
            all += text;
        return all;
    };
    const std::string hostile = "/a\\x0A\\x1B\\x3Cb\\x3E\\x26\\x5C\\xE2\\x80\\xAE\\xFF$(operation)";
    const Data content = Data::copy("xyz");
    // The details after "operation"; what is shown; whether nothing is left out.
    const struct {
        OperationCode code;
        Array arguments;
        PurposeDetails details;
        std::string shown;
        bool isComplete;
    } cases[] = {
        {kNopCode, {}, {}, "", true},
        {2, {"/a", "/b"}, {{"object", "/a"}, {"new-path", "/b"}}, "path: /a", true},
        {0,
         {"/a", content, true},
         {{"object", "/a"}, {"content", "3 bytes"}, {"remove-backup", "true"}},
         "path: /a",
         false},
        {3,
         {"1", "0", "/a", "/b", "/c", "/d", "/e"},
         {{"recursive", "1"}, {"stop-at-first-error", "0"}},
         "path: /a\npath: /b\npath: /c\npath: /d\nand 1 more",
         false},
        {21, {~0UL}, {{"object", "18446744073709551615"}}, "process: 18446744073709551615", true},
        {20,
         {"s", "", "key", "v"},
         {{"object", "key"}, {"session", "s"}, {"file", ""}, {"value", "v"}},
         "key: key",
         true},
        {24,
         {"/", "chmod", "0", "/a"},
         {{"object", "chmod"}, {"application", "/"}, {"argument", "0 /a"}},
         "utility: chmod",
         false},
        // Arguments that nobody has checked yet.
        {5, {}, {}, "", true},
        {5, {Array{}}, {}, "", true},
        {6,
         {"/a\n\x1B<b>&\\\xE2\x80\xAE\xFF$(operation)"},
         {{"object", hostile}},
         "path: " + hostile,
         true},
        {6, {"/srv/../etc"}, {}, "path: /srv/../etc", false},
        {6, {"/srv//x"}, {}, "path: /srv//x", false},
        {6, {"/srv/./x"}, {}, "path: /srv/./x", false},
        {6, {"/srv/"}, {}, "path: /srv/", false},
        {6, {"/"}, {{"object", "/"}}, "path: /", true},
        {6, {times("p", 5000)}, {}, "path: " + times("p", 78) + "..." + times("p", 78), false},
        {6,
         {times("\n", 200)},
         {{"object", times("\\x0A", 200)}},
         "path: " + times("\\x0A", 19) + "..." + times("\\x0A", 19),
         true},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.shown);
        const OperationEntry& operation = *set.operationWithCode(row.code);
        const RightPurpose purpose = purposeOfRequest(operation, row.arguments);
        PurposeDetails expected = row.details;
        expected.insert(expected.begin(), {"operation", operation.identifier});
        EXPECT_EQ(purpose.details, expected);
        EXPECT_EQ(purpose.shown, row.shown);
        EXPECT_EQ(purpose.isComplete, row.isComplete);
    }
}

TEST(Errors, AreLocalizedDownTheChain) {
    const auto deepest = makeError("d", 3, Dictionary{{"NSLocalizedDescription", "c"}});
    const auto middle = makeError(
        "d", 2, Dictionary{{"NSLocalizedDescription", "b"}, {"NSUnderlyingError", deepest}});
    const auto error = makeError("d", 1,
                                 Dictionary{{"NSFilePath", "a"},
                                            {"NSLocalizedDescription", ""},
                                            {"NSLocalizedRecoverySuggestion", "a"},
                                            {"NSUnderlyingError", middle}});
    constexpr auto localize = &QRLPrivilegedOperationSet::localizedErrorForPrivilegedOperationError;
    EXPECT_EQ(localize(nullptr), nullptr);
    EXPECT_EQ(*localize(error), *error);

    const test::ScratchFolder catalogues;
    std::filesystem::create_directories(catalogues.path("xx/LC_MESSAGES"));
    std::ofstream(catalogues.path("xx/LC_MESSAGES/PrivilegedOperationErrors.mo"))
        << test::catalogueOf({{"", "header"}, {"a", "<a>"}, {"c", "<c>"}});
    // gettext does not translate in the locale C, nor in C.UTF-8 since glibc 2.41.
    std::filesystem::create_symlink("/usr/lib/locale/C.utf8", catalogues.path("xx.utf8"));
    ::setenv("LOCPATH", catalogues.path().c_str(), 1);
    ASSERT_NE(::setlocale(LC_MESSAGES, "xx.UTF-8"), nullptr);
    ::bindtextdomain("PrivilegedOperationErrors", catalogues.path().c_str());
    const auto result = localize(error);
    ::setlocale(LC_MESSAGES, "C");
    EXPECT_EQ(*localize(error), *error);
    EXPECT_EQ(*result->filePath(), "a");
    EXPECT_EQ(result->userInfo()->find("NSLocalizedDescription")->string()->size(), 0U);
    EXPECT_EQ(*result->localizedRecoverySuggestion(), "<a>");
    EXPECT_EQ(result->underlyingError()->localizedDescription(), "b");
    EXPECT_EQ(result->underlyingError()->underlyingError()->localizedDescription(), "<c>");
}

TEST(ArgumentConversion, ReadsFlagsStrictly) {
    for (const std::string text : {" 1", "true", "", "01", "2", "0", "1"}) {
        const bool isFlag = text == "0" || text == "1";
        bool flag = text != "1";
        EXPECT_EQ(getBool(&flag, &text), isFlag) << text;
        EXPECT_EQ(flag, text != "0") << text;
    }
    EXPECT_FALSE(getBool(nullptr, nullptr));
}

TEST(ArgumentConversion, ReadsTypedValues) {
    using Type = PropertyListType;
    const auto bytes = [](std::initializer_list<std::uint8_t> list) { return Value(Data{list}); };
    const std::vector<std::tuple<Type, std::string, std::optional<Value>>> cases = {
        {Type::boolean, "true", Value(true)},
        {Type::boolean, "false", Value(false)},
        {Type::boolean, "TRUE", std::nullopt},
        {Type::number, "12abc", Value(12)},
        {Type::number, " \t-7", Value(-7)},
        {Type::number, "0x10", Value(0)},
        {Type::number, "99999999999999999999", Value(std::int64_t{INT64_MAX})},
        {Type::string, "", Value("")},
        {Type::data, "%41%42", bytes({0x41, 0x42})},
        {Type::data, " % 41 %42", bytes({0x41, 0x42})},
        {Type::data, "%09%aF%fA", bytes({0x09, 0xaf, 0xfa})},
        {Type::data, "%4G", bytes({0x04})},
        {Type::data, "%41%42%43%44x", bytes({0x41, 0x42, 0x43, 0x44})},
        {Type::data, "41", std::nullopt},
        {Type::data, "41x", std::nullopt},
        {Type::data, "%41%", bytes({0x41})},
        {Type::data, "%41%%%", std::nullopt},
        {Type::data, "%141", std::nullopt},
        {Type::data, "%FFFFFFFFFFFFFFFF0", std::nullopt},
        {Type::data, "%1\xc3\xa4\xc3\xa4", bytes({0x01})},
        {Type::date, "2020-01-01", std::nullopt},
    };
    for (const auto& [type, text, expected] : cases) {
        EXPECT_EQ(copyCoreFoundationValueWithType(type, &text), expected) << text;
    }
    EXPECT_EQ(copyCoreFoundationValueWithType(Type::number, nullptr), std::nullopt);
}

}  // namespace
}  // namespace corvalen
