// SPDX-License-Identifier: MIT
// The descriptor's rules and the catalogue as the client knows it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "operations/errors.hpp"
#include "operations/feedback.hpp"
#include "operations/operation_descriptions.hpp"
#include "operations/privileged_operation_set_kvx.hpp"

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

/// Code, identifier, policy word, feedback (none, Progress, live Output), types (* = any number).
constexpr std::string_view kContract =
    "9998 nop 0-, 9997 discard-auth 0-, 9996 delete-files 1-*, 9995 prepare-uninstall 1-, "
    "0 modify-systemfile 1-SDN, 1 create-fileobject 1-SS, 2 rename-fileobject 1-SS, "
    "3 delete-fileobjects 1P*, 4 delete-foldercontents 1P*, 5 inspect-fileobject 1-S, "
    "6 touch-fileobject 1-S, 7 modify-protection 1-SNNN, 8 modify-hfsattr 1-SNNN, "
    "9 create-link 1-SSN, 10 search-agedfiles 1PSNN, 11 search-filenames 1PSSSN, "
    "12 search-patterns 1P*, 13 search-fileorphans 1PSN, 14 inspect-storagesize 1-S, "
    "15 modify-powersetting 1-SN, 16 modify-diskspindown 1-N, 17 modify-kernelsetting 1-SN, "
    "18 modify-nvram 1-SS, 19 modify-preferences 1-SSSSS, 20 modify-sysconf 1-SSSS, "
    "21 terminate-process 1-N, 22 modify-acl 1-SD, 23 prop-permissions 1PSNNN, "
    "24 execute-utility 1O*, ";

std::string signatureOf(const QRLPrivilegedOperation& operation) {
    std::string signature = operation.authenticationPolicy() == Value("allow") ? "0" : "1";
    signature += operation.isSupportingProgressFeedback() ? "P"
                 : operation.isSupportingLiveOutput()     ? "O"
                                                          : "-";
    return signature + (operation.argumentCount() == kVariableArgumentCount
                            ? "*"
                            : operation.argumentTypeCodes().value_or(""));
}

TEST(Catalogue, HoldsTheContractRowByRow) {
    const QRLPrivilegedOperationSetKVX set;
    EXPECT_EQ(set.implementedOperations().size(), 29U);
    EXPECT_EQ(set.opIdentifiersByCode().size(), 29U);
    std::string contract;
    for (const auto& row : operationTable()) {
        SCOPED_TRACE(row.identifier);
        const auto* entry = set.operationWithCode(row.code);
        ASSERT_TRUE(entry != nullptr && entry->operation != nullptr);
        contract += std::to_string(row.code) + " " + set.opIdentifiersByCode().at(row.code) + " " +
                    signatureOf(*entry->operation) + ", ";
        EXPECT_EQ(set.opCodeForOperation(entry->operation), row.code);
        EXPECT_EQ(entry->rightName, std::string("net.corvalen.kvx.") + row.identifier);
        EXPECT_THAT(row.userPresentation, testing::MatchesRegex("Corvalen System likes to .*[.]"));
    }
    EXPECT_EQ(contract, kContract);
    // Those that only look cannot write, whatever their faults; what does nothing needs nothing.
    for (const auto& row : operationTable()) {
        const std::string_view identifier = row.identifier;
        const bool looks = identifier.starts_with("search-") || identifier.starts_with("inspect-");
        const bool idles = row.code == kNopCode || row.code == kDiscardAuthCode;
        if (looks || idles) {
            EXPECT_EQ(row.neededCapabilities, looks ? capability::kReadAnything : 0U) << identifier;
        }
    }
    EXPECT_EQ(set.operationWithCode(kEndOfTableCode), nullptr);
}

/// The type letters of an example's arguments.
std::string typesOfExample(std::string_view example) {
    std::istringstream words{std::string(example)};
    std::string types;
    for (std::string word; words >> word;)
        types += word.size() > 1 && word[1] == ':' ? word[0] : '?';
    return types;
}

/// The type letters of arguments, the last one so often that there are `count`.
std::string typesOf(std::span<const ArgumentDescription> arguments, std::size_t count) {
    std::string types;
    for (const ArgumentDescription& argument : arguments) {
        types += argument.type;
        while (argument.repeats && types.size() < count)
            types += argument.type;
    }
    return types;
}

TEST(OperationDescriptions, AgreeWithTheTable) {
    const auto table = operationTable();
    ASSERT_EQ(operationDescriptions().size(), table.size());
    for (std::size_t i = 0; i < table.size(); ++i) {
        const StaticOperationDescription& row = table[i];
        const OperationDescription& text = operationDescriptions()[i];
        SCOPED_TRACE(row.identifier);
        EXPECT_EQ(text.code, row.code);
        EXPECT_FALSE(text.summary.empty() || text.summary.back() == '.');
        const bool isVariable = row.argumentCount == kVariableArgumentCount;
        const bool endsInMany = !text.arguments.empty() && text.arguments.back().repeats;
        EXPECT_EQ(isVariable, endsInMany);
        const std::string example = typesOfExample(text.example);
        EXPECT_EQ(example, typesOf(text.arguments, example.size()));
        const std::string types = row.argumentTypeCodes != nullptr ? row.argumentTypeCodes : "";
        EXPECT_EQ(example, isVariable ? std::string(example.size(), 'S') : types);
        EXPECT_EQ(text.feedback.empty(), row.capabilityFlags == 0);
        for (const FeedbackDescription& message : text.feedback) {
            const bool isOutput =
                message.keys == kQRLPORK_OutputData || message.keys == kQRLPORK_ErrorData;
            EXPECT_EQ(isOutput, row.capabilityFlags == 256);
            EXPECT_TRUE(isOutput || message.keys.starts_with(kQRLPORK_ProgressFraction));
        }
        for (const ErrorDescription& error : text.errors) {
            const auto code = static_cast<OperationErrorCode>(error.code);
            const bool isOwn = error.origin == ErrorOrigin::operation;
            EXPECT_TRUE(!isOwn || !operationErrorDescription(code).empty()) << error.code;
        }
    }
}

}  // namespace
}  // namespace corvalen
