// SPDX-License-Identifier: MIT
// The catalogue, its rights, the texts of the errors and the lists in the executable.
#include <fmt/format.h>

#include "cli/text.hpp"
#include "foundation/bundle.hpp"
#include "foundation/property_list.hpp"
#include "helper/helper_fixture.hpp"
#include "helper/start_up.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "operations/operation_descriptions.hpp"
#include "support/golden.hpp"

namespace corvalen::test {
namespace {

std::string textOfDefinition(const Value& definition) {
    if (definition.string() != nullptr) return *definition.string();
    std::string text;
    for (const auto& [key, value] : *definition.dictionary())
        text += key + " = " + *value.string();
    return "{" + text + "}";
}

/// In the order of the bits of CapabilitySet.
constexpr std::string_view kCapabilities[] = {
    "read anything", "change anything", "act as owner",        "give away",    "keep special bits",
    "unlock",        "administer",      "set file privileges", "make devices", "end processes",
    "become user",   "command drives",  "configure network",   "set limits",   "see processes"};

std::string namesOf(CapabilitySet capabilities) {
    std::string names;
    for (std::size_t bit = 0; bit < std::size(kCapabilities); ++bit)
        if ((capabilities >> bit & 1U) != 0)
            names.append(names.empty() ? "" : ", ").append(kCapabilities[bit]);
    EXPECT_EQ(capabilities >> std::size(kCapabilities), 0U);
    return names.empty() ? "none" : names;
}

std::string rowOf(const QRLPrivilegedOperationSet& set, const OperationEntry& entry) {
    const QRLPrivilegedOperation& operation = *entry.operation;
    const bool isVariable = operation.argumentCount() == kVariableArgumentCount;
    const auto selector = [&](bool feedbackOption) {
        return set.selectorForExecutionOfPrivilegedOperationWithCode(entry.code, feedbackOption)
            .value_or("none");
    };
    return fmt::format(
        "{} {}, arguments {}{}{}\n  plain: {}\n  reporting: {}\n  capabilities: {}\n", entry.code,
        operation.identifier(), isVariable ? "any" : operation.argumentTypeCodes().value_or("none"),
        operation.isSupportingProgressFeedback() ? ", progress" : "",
        operation.isSupportingLiveOutput() ? ", output" : "", selector(false), selector(true),
        namesOf(operation.neededCapabilities()));
}

TEST(Golden, Operations) {
    const auto set = operationSetFactoryForClassName("QRLPrivilegedOperationSetKVX")();
    std::string text =
        fmt::format("{} {} of {}\nserves {}\nerrors {}\n\n", set->implementationCode(),
                    set->implementationVersion(), set->nameOfXPCRequestorForHelper(),
                    set->serviceIdentifierForHelper(), set->errorDomain());
    Events events;
    FakeAuthorization authority(events);
    authority.getStatus = kAuthorizationDenied;
    FakeAuthorization::Reference reference(authority);
    set->setAuthorizationRightsForImplementedOperationsUsingAuthorization(authority, &reference);
    EXPECT_EQ(authority.rights.size(), operationTable().size());
    for (const auto& row : operationTable()) {
        const OperationEntry* entry = set->operationWithCode(row.code);
        ASSERT_TRUE(entry != nullptr && entry->operation != nullptr) << row.identifier;
        EXPECT_EQ(set->opCodeForOperation(entry->operation), row.code);
        const FakeAuthorization::Right& right = authority.rights[entry->rightName];
        text += rowOf(*set, *entry);
        text += fmt::format("  {}: {}, table {}\n  {}\n\n", entry->rightName,
                            textOfDefinition(right.definition), right.table, right.prompt);
        // An agent displays the same sentence.
        const RightPurpose purpose = purposeOfRequest(*entry, {});
        EXPECT_EQ(purpose.textDomain + purpose.prompt, right.table + right.prompt);
    }
    EXPECT_EQ(set->operationWithCode(kEndOfTableCode), nullptr);
    EXPECT_EQ(set->authorizationRightNameForOperationWithIdentifier("none"), std::nullopt);
    expectGolden("operations.txt", text);
}

TEST(Golden, Descriptions) {
    std::string text;
    for (const OperationDescription& description : operationDescriptions())
        text += cli::operationText(description) + "\n";
    expectGolden("descriptions.txt", text);
}

TEST(Golden, Errors) {
    std::string text;
    for (std::uint8_t code = 1; code <= 18; ++code) {
        const ErrorRef error =
            makeOperationError(static_cast<OperationErrorCode>(code),
                               {{"<first>", "<second>"}, "<path>", makePosixError(EPERM)});
        text += fmt::format("{} {}\n", error->domain(), error->code());
        for (const auto& [key, value] : *error->userInfo()) {
            const std::string* words = value.string();
            text += fmt::format("  {}: {}\n", key,
                                words != nullptr ? *words
                                                 : fmt::format("{} {}", value.error()->domain(),
                                                               value.error()->code()));
        }
    }
    expectGolden("errors.txt", text);
}

TEST(Golden, EmbeddedLists) {
    std::string text;
    for (const std::string_view section : {kInfoSection, kServiceManagerSection}) {
        const auto list = embeddedPropertyList(CORVALEN_HELPER_PROGRAM, section);
        ASSERT_TRUE(list) << section;
        text += fmt::format("{}\n{}\n", section, xmlPropertyList(*list).value_or(""));
    }
    expectGolden("embedded_lists.txt", text);
}

TEST(Golden, ConsoleLines) {
    ::testing::internal::CaptureStderr();
    (void)QRLPrivilegedOperation::initWithStaticDescription({77, "a", 0, 257, 0, nullptr, "p"});
    constexpr StaticOperationDescription kOneRow[] = {
        {1, "only", 1, 0, 0, nullptr, "p"}, {kEndOfTableCode, nullptr, 0, 0, 0, nullptr, nullptr}};
    const QRLPrivilegedOperationSetKVX set(kOneRow, {});
    Events events;
    FakeAuthorization authority(events);
    FakeAuthorization::Reference reference(authority);
    authority.changeStatus = kAuthorizationInternal;
    for (const AuthorizationStatus status : {kAuthorizationDenied, kAuthorizationSuccess}) {
        authority.getStatus = status;
        set.setAuthorizationRightsForImplementedOperationsUsingAuthorization(authority, nullptr);
        set.setAuthorizationRightsForImplementedOperationsUsingAuthorization(authority, &reference);
        set.removeAuthorizationRightsForImplementedOperationsUsingAuthorization(authority, nullptr);
    }
    // Each right is defined once, with an authorization, and removed once.
    EXPECT_EQ(events.take(), (std::vector<std::string>{"define net.corvalen.kvx.only",
                                                       "remove net.corvalen.kvx.only"}));
    expectGolden("console.txt", ::testing::internal::GetCapturedStderr());
}

}  // namespace
}  // namespace corvalen::test
