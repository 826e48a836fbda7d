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

struct CatalogueRow {
    OperationCode code;
    const char* identifier;
    const char* signature;  // policy word, feedback ("-", "P", "O"), type codes ("*" = variable)
    const char* method;     // what follows "performOperation"; empty for the daemon's own

    bool reports() const { return signature[1] != '-'; }
    std::string selector() const {
        return std::string("performOperation") + method +
               "WithArguments:" + (reports() ? "feedbackConnection:" : "");
    }
};

constexpr std::array kCatalogue = {
    CatalogueRow{9998, "nop", "0-", ""},
    CatalogueRow{9997, "discard-auth", "0-", ""},
    CatalogueRow{9996, "delete-files", "1-*", ""},
    CatalogueRow{9995, "prepare-uninstall", "1-", ""},
    CatalogueRow{0, "modify-systemfile", "1-SDN", "ModifySystemfile"},
    CatalogueRow{1, "create-fileobject", "1-SS", "CreateFileobject"},
    CatalogueRow{2, "rename-fileobject", "1-SS", "RenameFileobject"},
    CatalogueRow{3, "delete-fileobjects", "1P*", "DeleteFileobjects"},
    CatalogueRow{4, "delete-foldercontents", "1P*", "DeleteFoldercontents"},
    CatalogueRow{5, "inspect-fileobject", "1-S", "InspectFileobject"},
    CatalogueRow{6, "touch-fileobject", "1-S", "TouchFileobject"},
    CatalogueRow{7, "modify-protection", "1-SNNN", "ModifyProtection"},
    CatalogueRow{8, "modify-hfsattr", "1-SNNN", "ModifyHfsattr"},
    CatalogueRow{9, "create-link", "1-SSN", "CreateLink"},
    CatalogueRow{10, "search-agedfiles", "1PSNN", "SearchAgedfiles"},
    CatalogueRow{11, "search-filenames", "1PSSSN", "SearchFilenames"},
    CatalogueRow{12, "search-patterns", "1P*", "SearchPatterns"},
    CatalogueRow{13, "search-fileorphans", "1PSN", "SearchFileorphans"},
    CatalogueRow{14, "inspect-storagesize", "1-S", "InspectStoragesize"},
    CatalogueRow{15, "modify-powersetting", "1-SN", "ModifyPowersetting"},
    CatalogueRow{16, "modify-diskspindown", "1-N", "ModifyDiskspindown"},
    CatalogueRow{17, "modify-kernelsetting", "1-SN", "ModifyKernelsetting"},
    CatalogueRow{18, "modify-nvram", "1-SS", "ModifyNvram"},
    CatalogueRow{19, "modify-preferences", "1-SSSSS", "ModifyPreferences"},
    CatalogueRow{20, "modify-sysconf", "1-SSSS", "ModifySysconf"},
    CatalogueRow{21, "terminate-process", "1-N", "TerminateProcess"},
    CatalogueRow{22, "modify-acl", "1-SD", "ModifyAcl"},
    CatalogueRow{23, "prop-permissions", "1PSNNN", "PropPermissions"},
    CatalogueRow{24, "execute-utility", "1O*", "ExecuteUtility"},
};

std::string signatureOf(const QRLPrivilegedOperation& operation) {
    std::string signature = operation.authenticationPolicy() == Value("allow") ? "0" : "1";
    signature += operation.isSupportingProgressFeedback() ? "P"
                 : operation.isSupportingLiveOutput()     ? "O"
                                                          : "-";
    return signature + (operation.argumentCount() == kVariableArgumentCount
                            ? "*"
                            : operation.argumentTypeCodes().value_or(""));
}

class EveryMethod : public OperationGroup {
  public:
    void registerMethods(MethodTable& table) override {
        for (const auto& row : kCatalogue) {
            if (*row.method == '\0') continue;
            if (row.reports()) {
                table.add(row.selector(),
                          [](const Array&, FeedbackConnection*) { return ErrorRef(); });
            } else {
                table.add(row.selector(), [](const Array&) { return ErrorRef(); });
            }
        }
    }
};

std::unique_ptr<QRLPrivilegedOperationSetKVX> fullSet() {
    std::vector<std::unique_ptr<OperationGroup>> groups;
    groups.push_back(std::make_unique<EveryMethod>());
    return std::make_unique<QRLPrivilegedOperationSetKVX>(std::move(groups));
}

TEST(Catalogue, HoldsTheContractRowByRow) {
    const auto set = fullSet();
    ASSERT_EQ(operationTable().size(), kCatalogue.size());
    EXPECT_EQ(set->implementedOperations().size(), 29U);
    EXPECT_EQ(set->opIdentifiersByCode().size(), 29U);
    for (std::size_t i = 0; i < kCatalogue.size(); ++i) {
        const auto& row = kCatalogue[i];
        SCOPED_TRACE(row.identifier);
        EXPECT_EQ(operationTable()[i].code, row.code);
        EXPECT_EQ(set->opIdentifiersByCode().at(row.code), row.identifier);
        const auto& operation = *set->implementedOperations().find(row.identifier)->second;
        EXPECT_EQ(signatureOf(operation), row.signature);
        EXPECT_EQ(set->opCodeForOperation(&operation), row.code);
        EXPECT_THAT(operation.presentationString(),
                    testing::StartsWith("Corvalen System likes to"));
        EXPECT_EQ(operation.presentationString().back(), '.');
        const auto* entry = set->operationWithCode(row.code);
        ASSERT_NE(entry, nullptr);
        EXPECT_EQ(entry->operation, &operation);
        EXPECT_EQ(entry->rightName, std::string("net.corvalen.kvx.") + row.identifier);
    }
}

TEST(Catalogue, ResolvesEachOperationToItsOneMethod) {
    const auto set = fullSet();
    for (const auto& row : kCatalogue) {
        SCOPED_TRACE(row.identifier);
        const auto resolve = [&](bool feedbackOption) {
            return set->selectorForExecutionOfPrivilegedOperationWithCode(row.code, feedbackOption);
        };
        EXPECT_EQ(resolve(!row.reports()), std::nullopt);
        const auto selector = resolve(row.reports());
        ASSERT_EQ(selector.has_value(), *row.method != '\0');
        if (!selector) continue;
        EXPECT_EQ(*selector, row.selector());
        const auto* method = set->operationWithCode(row.code)->implementation(row.reports()).method;
        EXPECT_EQ(method, set->methodForSelector(*selector));
        EXPECT_EQ(std::holds_alternative<FeedbackOperationMethod>(*method), row.reports());
    }
    EXPECT_EQ(set->selectorForExecutionOfPrivilegedOperationWithCode(25, false), std::nullopt);
    EXPECT_EQ(set->operationWithCode(kEndOfTableCode), nullptr);
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
