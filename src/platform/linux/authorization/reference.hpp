// SPDX-License-Identifier: MIT
// References to any authority, and checks of right definitions.
#pragma once

#include <array>
#include <optional>
#include <string_view>

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

}  // namespace corvalen
