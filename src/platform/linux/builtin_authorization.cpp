// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include "platform/authorization.hpp"
#include "platform/linux/authorization_reference.hpp"
#include "platform/linux/authorization_rights_file.hpp"

namespace corvalen {
namespace {

using Answer = RightsFile::Answer;

class BuiltInAuthorizationService : public AuthorizationService {
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
    std::unique_ptr<Authorization> createFromExternalForm(std::string_view externalForm,
                                                          const PeerIdentity& peer,
                                                          AuthorizationStatus* status) override;
    std::unique_ptr<Authorization> create(AuthorizationStatus* status) override;
    AuthorizationStatus rightGet(std::string_view rightName) override;
    AuthorizationStatus rightSet(Authorization* authorization, std::string_view rightName,
                                 const Value& definition, std::string_view prompt,
                                 std::string_view localizationTable) override;
    AuthorizationStatus rightRemove(Authorization* authorization,
                                    std::string_view rightName) override;

    [[nodiscard]] AuthorizationStatus check(const PeerIdentity& peer, std::string_view rightName);

  private:
    [[nodiscard]] Answer judgement(std::string_view rightName);

    const std::string _path;
    RightsFile _rights;
    std::map<std::string, RightPolicy, std::less<>> _defaults;
};

class BuiltInAuthorization : public AuthorizationReference {
  public:
    BuiltInAuthorization(BuiltInAuthorizationService& service, const PeerIdentity& peer,
                         const AuthorizationName& name)
        : AuthorizationReference(peer, name), _service(service) {}

    AuthorizationStatus copyRight(std::string_view rightName) override {
        return _service.check(peer(), rightName);
    }
    // This authority asks nobody and acquires nothing, so there is nothing to forget.
    void destroyRights() override {}

  private:
    BuiltInAuthorizationService& _service;
};

std::unique_ptr<Authorization> BuiltInAuthorizationService::createFromExternalForm(
    std::string_view externalForm, const PeerIdentity& peer, AuthorizationStatus* status) {
    const auto name = authorizationNameOfExternalForm(externalForm);
    *status = name ? kAuthorizationSuccess : kAuthorizationInvalidRef;
    if (!name) return nullptr;
    return std::make_unique<BuiltInAuthorization>(*this, peer, *name);
}

std::unique_ptr<Authorization> BuiltInAuthorizationService::create(AuthorizationStatus* status) {
    *status = kAuthorizationSuccess;
    return std::make_unique<BuiltInAuthorization>(*this, ownIdentity(), AuthorizationName{});
}

Answer BuiltInAuthorizationService::judgement(std::string_view rightName) {
    const auto answer = _rights.find(rightName);
    if (answer != Answer::undefined) return answer;
    const auto found = _defaults.find(rightName);
    if (found == _defaults.end()) return Answer::undefined;
    return found->second == RightPolicy::allow ? Answer::allow : Answer::administrator;
}

AuthorizationStatus BuiltInAuthorizationService::check(const PeerIdentity& peer,
                                                       std::string_view rightName) {
    const auto answer = judgement(rightName);
    const bool isAdmitted =
        answer == Answer::allow || (answer == Answer::administrator && peer.uid == 0);
    return isAdmitted && peer.pid > 0 && peer.isAlive() ? kAuthorizationSuccess
                                                        : kAuthorizationDenied;
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

}  // namespace corvalen
