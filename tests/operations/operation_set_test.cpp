// SPDX-License-Identifier: MIT
// Rights, errors and their texts, and the conversion of arguments.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <libintl.h>

#include <clocale>
#include <filesystem>
#include <fstream>

#include "operations/argument_conversion.hpp"
#include "operations/names.hpp"
#include "operations/privileged_operation_set_kvx.hpp"
#include "support/message_catalogue.hpp"
#include "support/scratch_folder.hpp"

namespace corvalen {
namespace {

using ::testing::HasSubstr;
using ::testing::Pair;
using ::testing::StartsWith;

TEST(Rights, AreDefinedOnceAndRemovedAndRefusalsAreReported) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    const test::ScratchFolder folder;
    const std::string rights = folder.path("store") + "/rights";
    const auto database = makeBuiltInAuthorizationService(rights);
    const QRLPrivilegedOperationSetKVX set;
    AuthorizationStatus status = kAuthorizationInternal;
    const auto root = database->create(&status);
    PeerIdentity stranger;
    stranger.uid = 65534;
    const auto other = database->createFromExternalForm(
        std::string(kAuthorizationExternalFormMagic) + std::string(24, 'x'), stranger, &status);
    const std::string nop = "net.corvalen.kvx.nop";
    ASSERT_EQ(database->rightSet(root.get(), nop, "authenticate-admin", "mine", ""), 0);

    const auto linesAfter = [&](auto method, Authorization* authorization) {
        testing::internal::CaptureStderr();
        (set.*method)(*database, authorization);
        const std::string text = test::textOf(rights);
        return std::pair(std::count(text.begin(), text.end(), '\n'),
                         testing::internal::GetCapturedStderr());
    };
    using Set = QRLPrivilegedOperationSet;
    constexpr auto kDefine = &Set::setAuthorizationRightsForImplementedOperationsUsingAuthorization;
    constexpr auto kRemove =
        &Set::removeAuthorizationRightsForImplementedOperationsUsingAuthorization;
    EXPECT_THAT(linesAfter(kDefine, nullptr), Pair(1, ""));
    EXPECT_THAT(
        linesAfter(kDefine, other.get()),
        Pair(1, HasSubstr("did not accept right definition for 'net.corvalen.kvx.modify-")));
    EXPECT_THAT(linesAfter(kDefine, root.get()), Pair(29, ""));
    EXPECT_THAT(test::textOf(rights), StartsWith(nop + " authenticate-admin mine\n"));
    EXPECT_THAT(linesAfter(kRemove, nullptr),
                Pair(29, HasSubstr("did not remove right definition for '" + nop + "'!")));
    EXPECT_THAT(linesAfter(kRemove, root.get()), Pair(0, ""));
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
    // gettext translates nothing in the locales C and, from glibc 2.41 on, C.UTF-8.
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
