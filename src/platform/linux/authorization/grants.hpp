// SPDX-License-Identifier: MIT
// Recently granted rights.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/authorization/reference.hpp"

namespace corvalen {

/// Lifetime and limits of remembered grants. A new grant of a user at the limit replaces that
/// user's oldest; with too many users it is not remembered.
inline constexpr std::chrono::seconds kGrantLifetime{300};
inline constexpr std::size_t kMaxGrantsPerUser = 128;
inline constexpr std::size_t kMaxUsersWithGrants = 1024;
/// Maximum size of a scope in bytes; a grant with a longer one is not remembered.
inline constexpr std::size_t kMaxGrantScope = 1024;

/// Grants by peer process (pid and start time), authorization, right and scope. An empty scope
/// covers every purpose of the right, another one only itself. Times count since boot, suspension
/// included (CLOCK_BOOTTIME). Any thread may call.
class GrantMemory {
  public:
    using Time = std::chrono::nanoseconds;
    [[nodiscard]] static Time now() noexcept;

    void remember(const PeerIdentity& peer, const AuthorizationName& authorization,
                  std::string_view right, std::string_view scope, Time when);
    [[nodiscard]] bool isRemembered(const PeerIdentity& peer,
                                    const AuthorizationName& authorization, std::string_view right,
                                    std::string_view scope, Time when) const;
    /// Forgets all grants of this authorization.
    void forgetAuthorization(const PeerIdentity& peer, const AuthorizationName& authorization);
    /// Forgets all grants of this right.
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
    std::map<uid_t, std::vector<Grant>> _grants;  // by user, oldest first
};

}  // namespace corvalen
