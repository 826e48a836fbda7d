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
#include "support/golden.hpp"
#include "support/message_catalogue.hpp"
#include "support/request_notation.hpp"

namespace corvalen {
namespace {

/// Code, identifier, policy, flags, number and types of the arguments, and prompt; "~" is null.
TEST(Descriptor, AcceptsOnlyConsistentRecordsAndReportsContradictions) {
    const auto check = [](const std::string& row) {
        const std::vector<std::string> words = test::fieldsOf(row);
        const auto text = [&](std::size_t at) -> const char* {
            if (at == words.size()) return "";
            return words[at] == "~" ? nullptr : words[at].c_str();
        };
        const auto number = [&](std::size_t at) { return std::stoll(words.at(at)); };
        testing::internal::CaptureStderr();
        const auto operation = QRLPrivilegedOperation::initWithStaticDescription(
            {OperationCode(number(0)), text(1), std::uint64_t(number(2)), std::uint64_t(number(3)),
             number(4), text(5), text(6)});
        const auto log = testing::internal::GetCapturedStderr();
        return (operation ? "accepted" : "refused") + (log.empty() ? "" : ": " + log);
    };
    test::expectRows("descriptors.txt", {{"descriptor", check}});
}

TEST(Descriptor, NeedsAUsablePolicyAndReadsBothStylesOfFeedback) {
    for (const Value& unusable : {Value(""), Value(Dictionary()), Value(1), Value()})
        EXPECT_EQ(QRLPrivilegedOperation::initWithIdentifier("a", unusable, false, false, 0,
                                                             std::nullopt, "p"),
                  nullptr);
    const auto output =
        QRLPrivilegedOperation::initWithStaticDescription({1, "a", 2, 512, 0, nullptr, "p"});
    EXPECT_EQ(output->authenticationPolicy(), Value("authenticate-admin"));
    EXPECT_TRUE(output->isSupportingLiveOutput() && !output->isSupportingProgressFeedback());
}

/// What rules and prompts learn of the request "code|argument|argument".
std::string purposeOf(const std::string& request) {
    static const QRLPrivilegedOperationSetKVX kSet;
    const auto [code, arguments] = test::requestOf(request);
    const RightPurpose purpose = purposeOfRequest(*kSet.operationWithCode(code), arguments);
    std::string text;
    for (const auto& [name, value] : purpose.details)
        text.append(name).append("=").append(value).append("; ");
    text += purpose.isComplete ? "shown" : "shown in part";
    return purpose.shown.empty() ? text : text + ": " + purpose.shown;
}

TEST(RequestDetails, NameTheObjectAndEscapeItsText) {
    const auto methodName = [](const std::string& identifier) {
        return QRLPrivilegedOperation::initWithStaticDescription(
                   {1, identifier.c_str(), 0, 0, 0, nullptr, "p"})
            ->operationIdentifierForExecutionSelector()
            .value_or("none");
    };
    test::expectRows("requests.txt", {{"purpose", purposeOf}, {"method", methodName}});
    // What is too long is cut in the prompt, and left out where a rule would compare it.
    const std::string cut(77, 'p');
    EXPECT_EQ(purposeOf("6|a" + std::string(5000, 'p') + "z"),
              "operation=touch-fileobject; shown in part: path: a" + cut + "..." + cut + "z");
    EXPECT_THAT(purposeOf("2|/a|" + std::string(5000, 'p')),
                testing::EndsWith("ppp; shown in part: path: /a"));
    EXPECT_THAT(
        purposeOf("6|" + std::string(200, '\n')),
        testing::ContainsRegex("object=(.x0A){200}; shown: path: (.x0A){19}...(.x0A){19}$"));
}

TEST(Errors, AreLocalizedDownTheChain) {
    const auto deepest = makeError("d", 3, Dictionary{{"NSLocalizedDescription", "c"}});
    const std::string hidden("a\0b", 3);
    const auto middle = makeError(
        "d", 2, Dictionary{{"NSLocalizedDescription", hidden}, {"NSUnderlyingError", deepest}});
    const auto error = makeError("d", 1,
                                 Dictionary{{"NSFilePath", "a"},
                                            {"NSLocalizedDescription", ""},
                                            {"NSLocalizedRecoverySuggestion", "a"},
                                            {"NSUnderlyingError", middle}});
    constexpr auto localize = &QRLPrivilegedOperationSet::localizedErrorForPrivilegedOperationError;
    EXPECT_EQ(localize(nullptr), nullptr);
    EXPECT_EQ(*localize(makeError("d", 1)), *makeError("d", 1));
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
    EXPECT_EQ(result->underlyingError()->localizedDescription(), hidden);
    EXPECT_EQ(result->underlyingError()->underlyingError()->localizedDescription(), "<c>");
}

/// What is no flag leaves the variable alone.
std::string flagOf(const std::string& text) {
    bool flag = text != "1";
    const bool before = flag;
    if (getBool(&flag, &text)) return flag ? "true" : "false";
    return flag == before ? "none" : "none, but changed";
}

TEST(ArgumentConversion, ReadsFlagsAndTypedValues) {
    using Type = PropertyListType;
    const std::map<std::string, Type> types = {{"Boolean", Type::boolean},
                                               {"number", Type::number},
                                               {"string", Type::string},
                                               {"data", Type::data},
                                               {"date", Type::date}};
    const auto converted = [&](const std::string& row) -> std::string {
        const auto blank = row.find(' ');
        std::string text = row.substr(blank + 1);
        std::replace(text.begin(), text.end(), '~', '%');
        const auto value = copyCoreFoundationValueWithType(types.at(row.substr(0, blank)), &text);
        if (!value) return "none";
        if (value->data() != nullptr) return "data " + std::string(value->data()->view());
        if (value->string() != nullptr) return "string '" + *value->string() + "'";
        const Number& number = *value->number();
        return (number.kind() == Number::Kind::boolean ? "Boolean " : "number ") +
               number.stringValue();
    };
    test::expectRows("arguments.txt", {{"flag", flagOf}, {"typed", converted}});
    EXPECT_FALSE(getBool(nullptr, nullptr));
    EXPECT_EQ(copyCoreFoundationValueWithType(Type::number, nullptr), std::nullopt);
}

}  // namespace
}  // namespace corvalen
