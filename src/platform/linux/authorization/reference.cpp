// SPDX-License-Identifier: MIT
#include "platform/linux/authorization/reference.hpp"

#include <unistd.h>

#include <algorithm>
#include <ctime>

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

GrantMemory::Time GrantMemory::now() noexcept {
    timespec time{};
    ::clock_gettime(CLOCK_BOOTTIME, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

void GrantMemory::remember(const PeerIdentity& peer, const AuthorizationName& authorization,
                           std::string_view right, std::string_view scope, Time when) {
    if (scope.size() > kMaxGrantScope) return;
    const std::scoped_lock locked(_lock);
    if (!_grants.contains(peer.uid) && _grants.size() >= kMaxUsersWithGrants) {
        dropExpired(when);
        if (_grants.size() >= kMaxUsersWithGrants) return;
    }
    auto& grants = _grants[peer.uid];
    std::erase_if(grants, [&](const Grant& grant) {
        return grant.expiry <= when ||
               (grant.isOf(peer, authorization) && grant.right == right && grant.scope == scope);
    });
    if (grants.size() >= kMaxGrantsPerUser) grants.erase(grants.begin());
    grants.push_back({peer.pid, peer.startTime, authorization, std::string(right),
                      std::string(scope), when + kGrantLifetime});
}

void GrantMemory::dropExpired(Time when) {
    for (auto user = _grants.begin(); user != _grants.end();) {
        // A user's newest grant expires last.
        const bool isOver = user->second.empty() || user->second.back().expiry <= when;
        user = isOver ? _grants.erase(user) : std::next(user);
    }
}

bool GrantMemory::isRemembered(const PeerIdentity& peer, const AuthorizationName& authorization,
                               std::string_view right, std::string_view scope, Time when) const {
    const std::scoped_lock locked(_lock);
    const auto user = _grants.find(peer.uid);
    if (user == _grants.end()) return false;
    return std::any_of(user->second.begin(), user->second.end(), [&](const Grant& grant) {
        return grant.isOf(peer, authorization) && grant.right == right &&
               (grant.scope.empty() || grant.scope == scope) && when < grant.expiry;
    });
}

void GrantMemory::forgetAuthorization(const PeerIdentity& peer,
                                      const AuthorizationName& authorization) {
    const std::scoped_lock locked(_lock);
    const auto user = _grants.find(peer.uid);
    if (user == _grants.end()) return;
    std::erase_if(user->second,
                  [&](const Grant& grant) { return grant.isOf(peer, authorization); });
}

void GrantMemory::forgetRight(std::string_view right) {
    const std::scoped_lock locked(_lock);
    for (auto& [uid, grants] : _grants) {
        std::erase_if(grants, [right](const Grant& grant) { return grant.right == right; });
    }
}

}  // namespace corvalen
