// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include "foundation/path.hpp"
#include "platform/authorization/authorization.hpp"
#include "platform/linux/authorization/definition_files.hpp"
#include "platform/linux/authorization/reference.hpp"

namespace corvalen {
namespace {

using Answer = RightsFile::Answer;

class BuiltInAuthorizationService : public ReferenceAuthority {
  public:
    BuiltInAuthorizationService(std::string_view rightsFile, std::vector<RightDefinition> defaults)
        : _path(rightsFile), _rights(rightsFile) {
        for (auto& right : defaults) {
            if (const auto policy = policyOfDefinition(right.definition)) {
                _defaults.insert_or_assign(std::move(right.name), *policy);
            }
        }
    }

    [[nodiscard]] std::string description() const override {
        return fmt::format("built-in authority, rights file {}", _path);
    }
    [[nodiscard]] RightOutlook outlook(std::string_view rightName) override;
    AuthorizationStatus rightGet(std::string_view rightName) override;
    AuthorizationStatus rightSet(Authorization* authorization, std::string_view rightName,
                                 const Value& definition, std::string_view prompt,
                                 std::string_view localizationTable) override;
    AuthorizationStatus rightRemove(Authorization* authorization,
                                    std::string_view rightName) override;

    [[nodiscard]] AuthorizationStatus check(const AuthorizationReference& reference,
                                            std::string_view rightName,
                                            const RightPurposeSource& purpose) override;
    // This authority remembers no grants.
    void forget(const AuthorizationReference& /*reference*/) override {}

  private:
    [[nodiscard]] Answer judgement(std::string_view rightName);

    const std::string _path;
    RightsFile _rights;
    std::map<std::string, RightPolicy, std::less<>> _defaults;
};

Answer BuiltInAuthorizationService::judgement(std::string_view rightName) {
    const auto answer = _rights.find(rightName);
    if (answer != Answer::undefined) return answer;
    const auto found = _defaults.find(rightName);
    if (found == _defaults.end()) return Answer::undefined;
    return found->second == RightPolicy::allow ? Answer::allow : Answer::administrator;
}

AuthorizationStatus BuiltInAuthorizationService::check(const AuthorizationReference& reference,
                                                       std::string_view rightName,
                                                       const RightPurposeSource& /*purpose*/) {
    const auto answer = judgement(rightName);
    // "allow" rights ignore the caller's identity.
    if (answer == Answer::allow) return kAuthorizationSuccess;
    if (answer == Answer::unreadable) return kAuthorizationInternal;
    const auto& peer = reference.peer();
    const bool isAdmitted = answer == Answer::administrator && peer.uid == 0 && peer.isAlive();
    return isAdmitted ? kAuthorizationSuccess : kAuthorizationDenied;
}

RightOutlook BuiltInAuthorizationService::outlook(std::string_view rightName) {
    switch (judgement(rightName)) {
        case Answer::allow:
            return RightOutlook::granted;
        case Answer::administrator:
            return ownIdentity().uid == 0 ? RightOutlook::granted : RightOutlook::denied;
        case Answer::undefined:
            return RightOutlook::denied;
        case Answer::unreadable:
            break;
    }
    return RightOutlook::unknown;
}

AuthorizationStatus BuiltInAuthorizationService::rightGet(std::string_view rightName) {
    switch (_rights.find(rightName)) {
        case Answer::allow:
        case Answer::administrator:
            return kAuthorizationSuccess;
        case Answer::undefined:
            return kAuthorizationDenied;
        case Answer::unreadable:
            break;
    }
    return kAuthorizationInternal;
}

AuthorizationStatus BuiltInAuthorizationService::rightSet(Authorization* authorization,
                                                          std::string_view rightName,
                                                          const Value& definition,
                                                          std::string_view prompt,
                                                          std::string_view /*localizationTable*/) {
    if (const auto status = mayChangeRights(authorization)) return status;
    if (!isValidRightName(rightName) || !policyOfDefinition(definition)) {
        return kAuthorizationInvalidSet;
    }
    return _rights.set(rightName, definition, prompt) ? kAuthorizationSuccess
                                                      : kAuthorizationInternal;
}

AuthorizationStatus BuiltInAuthorizationService::rightRemove(Authorization* authorization,
                                                             std::string_view rightName) {
    if (const auto status = mayChangeRights(authorization)) return status;
    return _rights.remove(rightName) ? kAuthorizationSuccess : kAuthorizationInternal;
}

}  // namespace

std::unique_ptr<AuthorizationService> makeBuiltInAuthorizationService(
    std::string_view rightsFile, std::vector<RightDefinition> defaults) {
    return std::make_unique<BuiltInAuthorizationService>(rightsFile, std::move(defaults));
}

namespace {

constexpr std::string_view kRightsFileName = "rights";

}  // namespace

std::unique_ptr<AuthorizationService> makeSystemAuthorizationService(
    std::string_view storeDirectory, std::vector<RightDefinition> defaults) {
    if (auto polkit = makePolkitAuthorizationService()) return polkit;
    return makeBuiltInAuthorizationService(appendPathComponent(storeDirectory, kRightsFileName),
                                           std::move(defaults));
}

}  // namespace corvalen
