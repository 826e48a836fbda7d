// SPDX-License-Identifier: MIT
#include "platform/linux/authorization/reference.hpp"

#include <unistd.h>

#include <algorithm>

namespace corvalen {
namespace {

constexpr std::size_t kMaxRightNameLength = 200;  // with a suffix it fits in a file name

bool isLetterOrDigit(char character) noexcept {
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
           (character >= '0' && character <= '9');
}

/// Returns std::nullopt if the bytes are not an external form.
std::optional<AuthorizationName> nameOfExternalForm(std::string_view externalForm) noexcept {
    AuthorizationName name;
    if (externalForm.size() != name.size() ||
        externalForm.substr(0, kAuthorizationExternalFormMagic.size()) !=
            kAuthorizationExternalFormMagic) {
        return std::nullopt;
    }
    std::copy(externalForm.begin(), externalForm.end(), name.begin());
    return name;
}

}  // namespace

PeerIdentity ownIdentity() {
    PeerIdentity identity;
    identity.pid = ::getpid();
    identity.uid = ::geteuid();
    identity.gid = ::getegid();
    identity.startTime = processStartTime(identity.pid);
    return identity;
}

AuthorizationStatus AuthorizationReference::copyRight(std::string_view rightName,
                                                      const RightPurposeSource& purpose) {
    return _authority.check(*this, rightName, purpose);
}

void AuthorizationReference::destroyRights() {
    _authority.forget(*this);
}

std::unique_ptr<Authorization> ReferenceAuthority::createFromExternalForm(
    std::string_view externalForm, const PeerIdentity& peer, AuthorizationStatus* status) {
    const auto name = nameOfExternalForm(externalForm);
    *status = name ? kAuthorizationSuccess : kAuthorizationInvalidRef;
    if (!name) return nullptr;
    return std::make_unique<AuthorizationReference>(*this, peer, *name);
}

std::unique_ptr<Authorization> ReferenceAuthority::create(AuthorizationStatus* status) {
    *status = kAuthorizationSuccess;
    return std::make_unique<AuthorizationReference>(*this, ownIdentity(), AuthorizationName{});
}

AuthorizationStatus mayChangeRights(const Authorization* authorization) noexcept {
    const auto* reference = dynamic_cast<const AuthorizationReference*>(authorization);
    if (reference == nullptr) return kAuthorizationInvalidRef;
    return reference->peer().uid == 0 ? kAuthorizationSuccess : kAuthorizationDenied;
}

bool isValidRightName(std::string_view name) noexcept {
    return !name.empty() && name.size() <= kMaxRightNameLength && isLetterOrDigit(name.front()) &&
           std::all_of(name.begin(), name.end(), [](char character) {
               return isLetterOrDigit(character) || character == '.' || character == '-';
           });
}

std::optional<RightPolicy> policyOfDefinition(const Value& definition) noexcept {
    if (const auto* word = definition.string()) {
        if (*word == "allow") return RightPolicy::allow;
        if (*word == "authenticate-admin") return RightPolicy::administrator;
        return std::nullopt;
    }
    const auto* rules = definition.dictionary();
    const auto* rule = rules == nullptr ? nullptr : rules->find("rule");
    if (rule == nullptr || rule->string() == nullptr || *rule->string() != "default") {
        return std::nullopt;
    }
    return RightPolicy::administrator;
}

}  // namespace corvalen
