// SPDX-License-Identifier: MIT
#include "platform/linux/authorization/grants.hpp"

#include <algorithm>
#include <ctime>

namespace corvalen {

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
