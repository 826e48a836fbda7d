// SPDX-License-Identifier: MIT
// The descriptor's rules and the catalogue as the client knows it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "operations/privileged_operation_set_kvx.hpp"
#include "operations/request_details.hpp"

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

TEST(Descriptor, KeepsThePolicyOfTheWordAndTheStyleOfTheFlags) {
    const std::pair<std::uint64_t, Value> policies[] = {
        {0, "allow"}, {1, Dictionary{{"rule", "default"}}}, {2, "authenticate-admin"}};
    for (const auto& [word, policy] : policies)
        EXPECT_EQ(
            QRLPrivilegedOperation::initWithStaticDescription({1, "a", word, 0, 0, nullptr, "p"})
                ->authenticationPolicy(),
            policy);
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

TEST(Catalogue, OperationsThatOnlyLookCannotWrite) {
    for (const auto& row : operationTable()) {
        const std::string_view identifier = row.identifier;
        const bool looks = identifier.starts_with("search-") || identifier.starts_with("inspect-");
        const bool idles = row.code == kNopCode || row.code == kDiscardAuthCode;
        if (looks || idles) {
            EXPECT_EQ(row.neededCapabilities, looks ? capability::kReadAnything : 0U) << identifier;
        }
    }
}

TEST(RequestDetails, NameTheObjectAndMisleadNobody) {
    const QRLPrivilegedOperationSetKVX set;
    const std::string path(5000, 'p');
    const std::string shownPath = std::string(78, 'p') + "..." + std::string(78, 'p');
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
         {"/a", Data::copy("xyz"), true},
         {{"object", "/a"}, {"content", "3 bytes"}, {"remove-backup", "true"}},
         "path: /a",
         false},
        {3,
         {"1", "0", "/a", "/b", "/c", "/d", "/e"},
         {{"recursive", "1"}, {"stop-at-first-error", "0"}},
         "path: /a\npath: /b\npath: /c\npath: /d\nand 1 more",
         false},
        {21,
         {~std::uint64_t{0}},
         {{"object", "18446744073709551615"}},
         "process: "
         "18446744073709551615",
         true},
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
        // Not yet checked arguments.
        {5, {}, {}, "", true},
        {5, {Array{}}, {}, "", true},
        {6,
         {"/a\n\x1B<b>&\\\xE2\x80\xAE\xFF$(operation)"},
         {{"object", "/a\\x0A\\x1B\\x3Cb\\x3E\\x26\\x5C\\xE2\\x80\\xAE\\xFF$(operation)"}},
         "path: /a\\x0A\\x1B\\x3Cb\\x3E\\x26\\x5C\\xE2\\x80\\xAE\\xFF$(operation)",
         true},
        {6, {"/srv/../etc"}, {}, "path: /srv/../etc", false},
        {6, {"/srv//x"}, {}, "path: /srv//x", false},
        {6, {"/srv/./x"}, {}, "path: /srv/./x", false},
        {6, {"/srv/"}, {}, "path: /srv/", false},
        {6, {"/"}, {{"object", "/"}}, "path: /", true},
        {6, {path}, {}, "path: " + shownPath, false},
        {6,
         {std::string(200, '\n')},
         {{"object",
           [] {
               std::string all;
               for (int i = 0; i < 200; ++i)
                   all += "\\x0A";
               return all;
           }()}},
         "path: " +
             [] {
                 std::string half;
                 for (int i = 0; i < 19; ++i)
                     half += "\\x0A";
                 return half + "..." + half;
             }(),
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

}  // namespace
}  // namespace corvalen
