// SPDX-License-Identifier: MIT
// References to any authority, their recent grants, and checks of right definitions.
#pragma once

#include <array>
#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/authorization/authorization.hpp"

namespace corvalen {

/// The external form, which names an authorization among those of its process.
using AuthorizationName = std::array<char, kAuthorizationExternalFormLength>;

class ReferenceAuthority;

/// A reference of one peer to one authority.
class AuthorizationReference final : public Authorization {
  public:
    AuthorizationReference(ReferenceAuthority& authority, PeerIdentity peer,
                           const AuthorizationName& name)
        : _authority(authority), _peer(std::move(peer)), _name(name) {}

    AuthorizationStatus copyRight(std::string_view rightName,
                                  const RightPurposeSource& purpose) override;
    void destroyRights() override;

    [[nodiscard]] const PeerIdentity& peer() const noexcept { return _peer; }
    [[nodiscard]] const AuthorizationName& name() const noexcept { return _name; }

  private:
    ReferenceAuthority& _authority;
    PeerIdentity _peer;
    AuthorizationName _name;
};

/// An authority that identifies a reference by process and name.
class ReferenceAuthority : public AuthorizationService {
  public:
    std::unique_ptr<Authorization> createFromExternalForm(std::string_view externalForm,
                                                          const PeerIdentity& peer,
                                                          AuthorizationStatus* status) final;
    std::unique_ptr<Authorization> create(AuthorizationStatus* status) final;

    /// Decides whether the reference has the right now; may prompt the user.
    [[nodiscard]] virtual AuthorizationStatus check(const AuthorizationReference& reference,
                                                    std::string_view rightName,
                                                    const RightPurposeSource& purpose) = 0;
    /// Forgets all grants of this reference.
    virtual void forget(const AuthorizationReference& reference) = 0;
};

/// Returns the identity of this process.
[[nodiscard]] PeerIdentity ownIdentity();

/// Returns success for a reference of user 0, which alone may change definitions.
[[nodiscard]] AuthorizationStatus mayChangeRights(const Authorization* authorization) noexcept;

/// Returns whether the name consists of letters, digits, full stops and hyphens and begins with one
/// of the first two: valid as right, file name and polkit action. At most 200 bytes.
[[nodiscard]] bool isValidRightName(std::string_view name) noexcept;

/// The users that a definition admits: all, or administrators.
enum class RightPolicy : std::uint8_t { allow, administrator };
/// Returns std::nullopt if the value is not a definition.
[[nodiscard]] std::optional<RightPolicy> policyOfDefinition(const Value& definition) noexcept;

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
