// SPDX-License-Identifier: MIT
#include <unistd.h>

#include <cerrno>
#include <corvalen/rights.hpp>
#include <string>

#include "operations/names.hpp"
#include "operations/privileged_operation_set.hpp"
#include "platform/authorization/authorization.hpp"

namespace corvalen {
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
