// SPDX-License-Identifier: MIT
// The descriptor's rules and the catalogue as the client knows it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>

#include "operations/privileged_operation_set_kvx.hpp"

namespace corvalen {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::unique_ptr<const QRLPrivilegedOperation> operationNamed(std::string_view identifier) {
    return QRLPrivilegedOperation::initWithIdentifier(identifier, "allow", false, false, 0,
                                                      std::nullopt, "prompt");
}

struct RecordCase {
    StaticOperationDescription record;
    bool isAccepted;
    bool isReported;
};

TEST(Descriptor, AcceptsOnlyConsistentRecordsAndReportsContradictions) {
    const std::array cases = {
        RecordCase{{1, "a", 0, 0, 0, nullptr, "p"}, true, false},
        RecordCase{{1, "a", 2, 1, 2, "SD", "p"}, true, false},
        RecordCase{{1, "a", 1, 0x10000, kVariableArgumentCount, nullptr, "p"}, true, false},
        RecordCase{{1, nullptr, 0, 0, 0, nullptr, "p"}, false, false},
        RecordCase{{1, "a", 0, 0, 0, nullptr, nullptr}, false, false},
        RecordCase{{1, "a", 3, 0, 0, nullptr, "p"}, false, false},
        RecordCase{{77, "", 0, 0, 0, nullptr, "p"}, false, true},
        RecordCase{{77, "a", 0, 0, 0, nullptr, ""}, false, true},
        RecordCase{{77, "a", 0, 257, 0, nullptr, "p"}, false, true},
        RecordCase{{77, "a", 0, 0, 3, "SD", "p"}, false, true},
        RecordCase{{77, "a", 0, 0, -1, nullptr, "p"}, false, true},
        RecordCase{{77, "a", 0, 0, kVariableArgumentCount, "S", "p"}, false, true},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(i);
        testing::internal::CaptureStderr();
        const auto operation = QRLPrivilegedOperation::initWithStaticDescription(cases[i].record);
        const auto log = testing::internal::GetCapturedStderr();
        EXPECT_EQ(operation != nullptr, cases[i].isAccepted);
        if (cases[i].isReported) {
            EXPECT_THAT(log, HasSubstr("(null): implementation error - the static description with "
                                       "code 77 contains inconsistent data and was not accepted."));
        } else {
            EXPECT_THAT(log, IsEmpty());
        }
    }
}

TEST(Descriptor, ReadsCapabilityBytesAndPolicies) {
    const auto operation =
        QRLPrivilegedOperation::initWithStaticDescription({1, "a", 2, 512, 0, nullptr, "p"});
    ASSERT_NE(operation, nullptr);
    EXPECT_TRUE(operation->isSupportingLiveOutput());
    EXPECT_FALSE(operation->isSupportingProgressFeedback());
    EXPECT_EQ(operation->authenticationPolicy(), Value("authenticate-admin"));
    for (const Value& policy : {Value(), Value(""), Value(Dictionary{}), Value(1)}) {
        EXPECT_EQ(QRLPrivilegedOperation::initWithIdentifier("a", policy, false, false, 0,
                                                             std::nullopt, "p"),
                  nullptr);
    }
}

TEST(Descriptor, NamesMethodAndRight) {
    for (const auto& [identifier, form] :
         {std::pair{"modify-systemfile", "ModifySystemfile"}, std::pair{"set-v2-mode", "SetVMode"},
          std::pair{"a--b", "AB"}, std::pair{"-x", "X"}, std::pair{"x-", "X"},
          std::pair{"fOO_bar-\xc3\xa4z",
                    "Foobar"
                    "Z"}}) {
        EXPECT_EQ(operationNamed(identifier)->operationIdentifierForExecutionSelector(), form);
    }
    const auto operation = operationNamed("modify-nvram");
    EXPECT_EQ(operation->authenticationRightNameForImplementationIdentifier("kvx"),
              "net.corvalen.kvx.modify-nvram");
    EXPECT_EQ(operation->authenticationRightNameForImplementationIdentifier(""), std::nullopt);
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
    EXPECT_EQ(set.operationWithCode(kEndOfTableCode), nullptr);
}

/// Responds to both forms of the names of two operations, one that reports and one that does not.
class BothForms : public OperationGroup {
  public:
    void registerMethods(MethodTable& table) override {
        for (const std::string name : {"performOperationDeleteFileobjectsWithArguments:",
                                       "performOperationModifyNvramWithArguments:"}) {
            table.add(name, [](const Array&) { return ErrorRef(); });
        }
        table.add("performOperationDeleteFileobjectsWithArguments:feedbackConnection:",
                  [](const Array&, FeedbackConnection*) { return ErrorRef(); });
    }
};

TEST(Catalogue, ResolvesACodeToTheFormThatIsAskedFor) {
    std::vector<std::unique_ptr<OperationGroup>> groups;
    groups.push_back(std::make_unique<BothForms>());
    const QRLPrivilegedOperationSetKVX set(std::move(groups));
    const auto resolve = [&](OperationCode code, bool feedbackOption) {
        return set.selectorForExecutionOfPrivilegedOperationWithCode(code, feedbackOption);
    };
    EXPECT_EQ(resolve(3, true),
              "performOperationDeleteFileobjectsWithArguments:feedbackConnection:");
    EXPECT_EQ(resolve(3, false), "performOperationDeleteFileobjectsWithArguments:");
    EXPECT_EQ(resolve(18, false), "performOperationModifyNvramWithArguments:");
    for (const auto& [code, option] :
         {std::pair{18, true}, std::pair{0, false}, std::pair{25, false}, std::pair{9998, false},
          std::pair{9998, true}}) {
        EXPECT_EQ(resolve(static_cast<OperationCode>(code), option), std::nullopt) << code;
    }
    const auto& implementation = set.operationWithCode(3)->implementation(true);
    EXPECT_EQ(implementation.method, set.methodForSelector(implementation.selector));
    EXPECT_TRUE(std::holds_alternative<FeedbackOperationMethod>(*implementation.method));
}

TEST(Catalogue, LeavesOutRejectedRowsAndLetsLaterOnesReplace) {
    const std::array<StaticOperationDescription, 5> table = {{
        {7, "first", 0, 0, 1, nullptr, "p"},
        {8, "second", 0, 0, 0, nullptr, "p"},
        {9, "second", 0, 0, 1, "S", "p"},
        {10, "third", 5, 0, 0, nullptr, "p"},
        {kEndOfTableCode, nullptr, 0, 0, 0, nullptr, nullptr},
    }};
    testing::internal::CaptureStderr();
    const QRLPrivilegedOperationSetKVX set(table.data(), {});
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("code 7 contains"));
    EXPECT_EQ(set.implementedOperations().size(), 1U);
    EXPECT_EQ(set.operationWithCode(7), nullptr);
    EXPECT_EQ(set.selectorForExecutionOfPrivilegedOperationWithCode(8, false), std::nullopt);
    EXPECT_EQ(set.operationWithCode(8)->operation->argumentCount(), 1);
    EXPECT_EQ(set.operationWithCode(8)->operation, set.operationWithCode(9)->operation);
    EXPECT_EQ(set.opCodeForOperation(nullptr), kNoOperationCode);
    EXPECT_EQ(set.opCodeForOperation(operationNamed("stranger").get()), kNoOperationCode);
}

}  // namespace
}  // namespace corvalen
