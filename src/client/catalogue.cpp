// SPDX-License-Identifier: MIT
#include <unistd.h>

#include <cerrno>
#include <corvalen/catalogue.hpp>
#include <corvalen/rights.hpp>
#include <string>
#include <vector>

#include "operations/names.hpp"
#include "operations/privileged_operation_set.hpp"
#include "platform/authorization/authorization.hpp"

namespace corvalen {
namespace {

OperationFeedback feedbackOfFlags(std::uint64_t capabilityFlags) {
    if ((capabilityFlags & 0xFFU) != 0) return OperationFeedback::progress;
    return (capabilityFlags & 0xFF00U) != 0 ? OperationFeedback::liveOutput
                                            : OperationFeedback::none;
}

OperationInfo infoOfRow(const StaticOperationDescription& row) {
    OperationInfo info{};
    info.code = row.code;
    info.identifier = row.identifier;
    if (row.argumentCount != kVariableArgumentCount)
        info.argumentCount = static_cast<std::size_t>(row.argumentCount);
    if (row.argumentTypeCodes != nullptr) info.argumentTypes = row.argumentTypeCodes;
    info.policy = static_cast<OperationPolicy>(row.authenticationPolicy);
    info.feedback = feedbackOfFlags(row.capabilityFlags);
    info.prompt = row.userPresentation;
    return info;
}

std::vector<OperationInfo> infosOfTable() {
    std::vector<OperationInfo> infos;
    for (const StaticOperationDescription& row : operationTable())
        infos.push_back(infoOfRow(row));
    return infos;
}

}  // namespace

std::span<const OperationInfo> operationCatalogue() {
    static const std::vector<OperationInfo> infos = infosOfTable();
    return infos;
}

const OperationInfo* findOperation(OperationCode code) {
    for (const OperationInfo& info : operationCatalogue())
        if (info.code == code) return &info;
    return nullptr;
}

const OperationInfo* findOperation(std::string_view identifier) {
    for (const OperationInfo& info : operationCatalogue())
        if (info.identifier == identifier) return &info;
    return nullptr;
}

namespace {

/// Fails with the first right whose existence differs from `wanted`.
bool checkRights(const QRLPrivilegedOperationSet& set, AuthorizationService& service, bool wanted,
                 ErrorRef* error) {
    ErrorRef failure;
    set.enumerateRightDefinitionsUsingBlock(
        [&](const std::string& name, const Value& /*definition*/, const std::string& /*prompt*/) {
            const AuthorizationStatus status = service.rightGet(name);
            if ((status == kAuthorizationSuccess) == wanted || failure) return;
            failure = makeError(kOSStatusErrorDomain, status == 0 ? kAuthorizationInternal : status,
                                Dictionary{{std::string(kLocalizedDescriptionKey),
                                            "The authority of this machine did not " +
                                                std::string(wanted ? "accept" : "remove") +
                                                " the right '" + name + "'."}});
        });
    return failure ? fail(error, std::move(failure)) : true;
}

bool changeRights(bool define, ErrorRef* error) {
    if (::geteuid() != 0) return failWithErrno(error, EPERM);
    const auto service = makeSystemAuthorizationService(kStoreDirectory, {});
    AuthorizationStatus status = kAuthorizationSuccess;
    const auto authorization = service->create(&status);
    if (!authorization) return fail(error, makeOSStatusError(status));
    const QRLPrivilegedOperationSetKVX set;
    if (define)
        set.setAuthorizationRightsForImplementedOperationsUsingAuthorization(*service,
                                                                             authorization.get());
    else
        set.removeAuthorizationRightsForImplementedOperationsUsingAuthorization(
            *service, authorization.get());
    return checkRights(set, *service, define, error);
}

}  // namespace

std::string authorityDescription() {
    return makeSystemAuthorizationService(kStoreDirectory, {})->description();
}

RightState rightState(std::string_view operation, std::string* name) {
    const QRLPrivilegedOperationSetKVX set;
    const auto right = set.authorizationRightNameForOperationWithIdentifier(operation);
    if (name != nullptr) *name = right.value_or(std::string());
    const auto polkit = makePolkitAuthorizationService();
    if (!polkit) return RightState::builtIn;
    const bool isMissing = !right || polkit->rightGet(*right) == kAuthorizationDenied;
    return isMissing ? RightState::missing : RightState::defined;
}

bool defineRights(ErrorRef* error) {
    return changeRights(true, error);
}

bool removeRights(ErrorRef* error) {
    return changeRights(false, error);
}

}  // namespace corvalen
