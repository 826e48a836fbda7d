// SPDX-License-Identifier: MIT
// Names, rights, errors and their texts, and the conversion of arguments.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <libintl.h>

#include <clocale>
#include <filesystem>
#include <fstream>
#include <thread>

#include "operations/argument_conversion.hpp"
#include "operations/errors.hpp"
#include "operations/names.hpp"
#include "operations/privileged_operation_set_kvx.hpp"
#include "support/scratch_folder.hpp"

namespace corvalen {
namespace {

using ::testing::HasSubstr;
using ::testing::Pair;

TEST(OperationSet, NamesServiceAndRights) {
    const QRLPrivilegedOperationSetKVX set;
    EXPECT_EQ(set.implementationVersion(), "1.4");
    EXPECT_EQ(set.serviceIdentifierForHelper(), kServiceName);
    EXPECT_EQ(set.nameOfXPCRequestorForHelper(), "net.corvalen.xpc.privilegerequestor-kvx");
    EXPECT_EQ(set.errorDomain(), "net.corvalen.error.privileged-operation");
    EXPECT_EQ(set.authorizationRightNameForOperationWithIdentifier("nop"), "net.corvalen.kvx.nop");
    EXPECT_EQ(set.authorizationRightNameForOperationWithIdentifier("none"), std::nullopt);
}

TEST(OperationSet, IsMadeOnceByTheFirstOfManyThreads) {
    std::atomic<int> made = 0;
    std::array<QRLPrivilegedOperationSet*, 8> seen = {};
    std::vector<std::thread> threads;
    threads.reserve(seen.size());
    for (auto& slot : seen) {
        threads.emplace_back([&made, &slot] {
            slot = &QRLPrivilegedOperationSet::privilegedOperationSet([&made] {
                ++made;
                return std::make_unique<QRLPrivilegedOperationSetKVX>();
            });
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(made, 1);
    EXPECT_THAT(seen, testing::Each(seen[0]));
}

TEST(Rights, AreDefinedOnceAndRemovedAndRefusalsAreReported) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    std::string folder = testing::TempDir() + "rightsXXXXXX";
    ASSERT_NE(::mkdtemp(folder.data()), nullptr);
    const auto database = makeBuiltInAuthorizationService(folder + "/store/rights");
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
        std::ifstream file(folder + "/store/rights");
        const std::string text{std::istreambuf_iterator<char>(file), {}};
        return std::pair(std::count(text.begin(), text.end(), '\n'),
                         testing::internal::GetCapturedStderr());
    };
    using Set = QRLPrivilegedOperationSet;
    constexpr auto kDefine = &Set::setAuthorizationRightsForImplementedOperationsUsingAuthorization;
    constexpr auto kRemove =
        &Set::removeAuthorizationRightsForImplementedOperationsUsingAuthorization;
    EXPECT_THAT(linesAfter(kDefine, nullptr), Pair(1, ""));
    EXPECT_THAT(linesAfter(kDefine, other.get()),
                Pair(1, HasSubstr("WARNING: authorization database did not accept right definition "
                                  "for 'net.corvalen.kvx.modify-acl'!")));
    EXPECT_THAT(linesAfter(kDefine, root.get()), Pair(29, ""));
    std::ifstream file(folder + "/store/rights");
    std::string first;
    std::getline(file, first);
    EXPECT_EQ(first, nop + " authenticate-admin mine");
    EXPECT_THAT(linesAfter(kRemove, nullptr),
                Pair(29, HasSubstr("WARNING: authorization database did not remove right "
                                   "definition for 'net.corvalen.kvx.nop'!")));
    EXPECT_THAT(linesAfter(kRemove, root.get()), Pair(0, ""));
    std::filesystem::remove_all(folder);
}

TEST(Errors, CarryFilledTextsAndDetails) {
    const auto cause = makePosixError(2);
    const auto error = makeOperationError(OperationErrorCode::missingComponent,
                                          {.suggestionArguments = {"100%@", "/bin/x"},
                                           .filePath = "/bin/x",
                                           .underlyingError = cause});
    EXPECT_EQ(error->domain(), kErrorDomain);
    EXPECT_EQ(error->code(), 1);
    EXPECT_EQ(error->localizedDescription(),
              "A required component of OS X is missing in your system installation.");
    EXPECT_EQ(
        *error->localizedRecoverySuggestion(),
        "Please verify that the UNIX program 100%@ is present at its standard path '/bin/x'.");
    EXPECT_EQ(*error->filePath(), "/bin/x");
    EXPECT_EQ(*error->underlyingError(), *cause);
    EXPECT_EQ(makeOperationError(OperationErrorCode::cannotModifyNvram)->userInfo()->size(), 2U);

    const auto answer = makeOperationAnswer("Size", Value(std::uint64_t{7}));
    EXPECT_EQ(answer->code(), 0);
    EXPECT_EQ(*answer->userInfo(), (Dictionary{{"Size", Value(std::uint64_t{7})}}));
}

TEST(Errors, HaveTheTextsOfTheirCodes) {
    for (const auto& [code, description, suggestion] :
         {std::tuple{3, "complete the operation", "It returned error code %d."},
          std::tuple{8, "Single User Mode is", "The object located at '%@' uses special"},
          std::tuple{11, "a NVRAM setting", "The error code is %d."},
          std::tuple{16, "change the owner", "for a file and folder."},
          std::tuple{18, "explicitly protected", "the object at '%@' and its parent"}}) {
        const auto which = static_cast<OperationErrorCode>(code);
        EXPECT_THAT(operationErrorDescription(which), HasSubstr(description));
        EXPECT_THAT(operationErrorSuggestion(which), HasSubstr(suggestion));
    }
}

/// A compiled catalogue (the GNU .mo format); the keys in order.
std::string catalogueOf(const std::vector<std::pair<std::string, std::string>>& texts) {
    constexpr std::uint32_t kHeader = 28;
    const auto count = static_cast<std::uint32_t>(texts.size());
    std::vector<std::uint32_t> words = {0x950412de, 0, count, kHeader, kHeader + 8 * count, 0, 0};
    std::string strings;
    const auto add = [&](const std::string& text) {
        words.push_back(static_cast<std::uint32_t>(text.size()));
        words.push_back(kHeader + 16 * count + static_cast<std::uint32_t>(strings.size()));
        strings.append(text).push_back('\0');
    };
    for (const auto& text : texts)
        add(text.first);
    for (const auto& text : texts)
        add(text.second);
    return std::string(reinterpret_cast<const char*>(words.data()), 4 * words.size()) + strings;
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
    const auto localized = [&] {
        return QRLPrivilegedOperationSet::localizedErrorForPrivilegedOperationError(error);
    };
    EXPECT_EQ(*localized(), *error);

    const test::ScratchFolder catalogues;
    std::filesystem::create_directories(catalogues.path("xx/LC_MESSAGES"));
    std::ofstream(catalogues.path("xx/LC_MESSAGES/PrivilegedOperationErrors.mo"))
        << catalogueOf({{"", "header"}, {"a", "<a>"}, {"c", "<c>"}});
    ASSERT_NE(::setlocale(LC_MESSAGES, "C.UTF-8"), nullptr);
    ::setenv("LANGUAGE", "xx", 1);
    ::bindtextdomain("PrivilegedOperationErrors", catalogues.path().c_str());
    const auto result = localized();
    ::setlocale(LC_MESSAGES, "C");
    EXPECT_EQ(*localized(), *error);
    EXPECT_EQ(result->code(), 1);
    EXPECT_EQ(*result->filePath(), "a");
    EXPECT_EQ(result->userInfo()->find("NSLocalizedDescription")->string()->size(), 0U);
    EXPECT_EQ(*result->localizedRecoverySuggestion(), "<a>");
    EXPECT_EQ(result->underlyingError()->localizedDescription(), "b");
    EXPECT_EQ(result->underlyingError()->underlyingError()->localizedDescription(), "<c>");
    EXPECT_EQ(QRLPrivilegedOperationSet::localizedErrorForPrivilegedOperationError(nullptr),
              nullptr);
}

TEST(ArgumentConversion, ReadsFlagsStrictly) {
    for (const std::string text : {" 1", "true", "", "01", "2"}) {
        bool flag = true;
        EXPECT_FALSE(getBool(&flag, &text)) << text;
        EXPECT_TRUE(flag);
    }
    const std::string zero = "0";
    const std::string one = "1";
    bool flag = true;
    EXPECT_TRUE(getBool(&flag, &zero));
    EXPECT_FALSE(flag);
    EXPECT_TRUE(getBool(&flag, &one));
    EXPECT_TRUE(flag);
    EXPECT_TRUE(getBool(nullptr, &one));
    EXPECT_FALSE(getBool(&flag, nullptr));
}

TEST(ArgumentConversion, ReadsTypedValues) {
    using Type = PropertyListType;
    const auto bytes = [](std::initializer_list<std::uint8_t> list) { return Value(Data{list}); };
    const std::vector<std::tuple<Type, std::string, std::optional<Value>>> cases = {
        {Type::boolean, "true", Value(true)},
        {Type::boolean, "false", Value(false)},
        {Type::boolean, "TRUE", std::nullopt},
        {Type::number, "12abc", Value(12)},
        {Type::number, "abc", Value(0)},
        {Type::number, " \t-7", Value(-7)},
        {Type::number, "0x10", Value(0)},
        {Type::number, "99999999999999999999", Value(std::int64_t{INT64_MAX})},
        {Type::string, "", Value("")},
        {Type::data, "%41%42", bytes({0x41, 0x42})},
        {Type::data, "%041%ff", bytes({0x41, 0xff})},
        {Type::data, " % 41 %42", bytes({0x41, 0x42})},
        {Type::data, "%4G", bytes({0x04})},
        {Type::data, "%41%42%43%44x", bytes({0x41, 0x42, 0x43, 0x44})},
        {Type::data, "   ", bytes({})},
        {Type::data, "41", std::nullopt},
        {Type::data, "%41G%42", std::nullopt},
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
