// SPDX-License-Identifier: MIT
// Which rights were granted a short while ago.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/authorization_reference.hpp"

namespace corvalen {

/// How long a grant is remembered, and how much is remembered at most. A user who passes the limit
/// loses the oldest grants of that user; beyond the users nothing is remembered.
inline constexpr std::chrono::seconds kGrantLifetime{300};
inline constexpr std::size_t kMaxGrantsPerUser = 128;
inline constexpr std::size_t kMaxUsersWithGrants = 1024;
/// A grant with a longer scope is not remembered.
inline constexpr std::size_t kMaxGrantScope = 1024;

/// Grants by peer process (pid and start time), authorization, right and scope: an empty scope
/// stands for everything that the right is asked for, another one for nothing but itself. Times
/// count from the start of the machine, suspension included. Any thread may call.
class GrantMemory {
  public:
    using Time = std::chrono::nanoseconds;
    [[nodiscard]] static Time now() noexcept;

    void remember(const PeerIdentity& peer, const AuthorizationName& authorization,
                  std::string_view right, std::string_view scope, Time when);
    [[nodiscard]] bool isRemembered(const PeerIdentity& peer,
                                    const AuthorizationName& authorization, std::string_view right,
                                    std::string_view scope, Time when) const;
    /// Forgets what this authorization of this process was granted.
    void forgetAuthorization(const PeerIdentity& peer, const AuthorizationName& authorization);
    /// Forgets who was granted this right.
    void forgetRight(std::string_view right);

  private:
    struct Grant {
        pid_t pid;
        std::uint64_t startTime;
        AuthorizationName authorization;
        std::string right;
        std::string scope;
        Time expiry;

        [[nodiscard]] bool isOf(const PeerIdentity& peer,
                                const AuthorizationName& wanted) const noexcept {
            return pid == peer.pid && startTime == peer.startTime && authorization == wanted;
        }
    };

    void dropExpired(Time when);

    mutable std::mutex _lock;
    std::map<uid_t, std::vector<Grant>> _grants;  // of each user, the oldest first
};

}  // namespace corvalen
