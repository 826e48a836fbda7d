// SPDX-License-Identifier: MIT
// What the references of every authority have in common, and the checks on what is defined.
#pragma once

#include <array>
#include <optional>
#include <string_view>

#include "platform/authorization.hpp"

namespace corvalen {

/// The bytes that name an authorization among those of its process.
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

/// An authority that knows a reference by its process and its name.
class ReferenceAuthority : public AuthorizationService {
  public:
    std::unique_ptr<Authorization> createFromExternalForm(std::string_view externalForm,
                                                          const PeerIdentity& peer,
                                                          AuthorizationStatus* status) final;
    std::unique_ptr<Authorization> create(AuthorizationStatus* status) final;

    /// Whether the right is granted to this reference now; may ask the user.
    [[nodiscard]] virtual AuthorizationStatus check(const AuthorizationReference& reference,
                                                    std::string_view rightName,
                                                    const RightPurposeSource& purpose) = 0;
    /// Forgets what this reference was granted.
    virtual void forget(const AuthorizationReference& reference) = 0;
};

/// This very process.
[[nodiscard]] PeerIdentity ownIdentity();

/// Whether a reference may change definitions: success for one of user 0.
[[nodiscard]] AuthorizationStatus mayChangeRights(const Authorization* authorization) noexcept;

/// Letters, digits, full stops and hyphens, led by neither of the last two: what may be the name of
/// a right, of a file and of a polkit action at once.
[[nodiscard]] bool isValidRightName(std::string_view name) noexcept;

/// How a definition judges those who ask.
enum class RightPolicy : std::uint8_t { allow, administrator };
/// Nothing for a value that is no definition.
[[nodiscard]] std::optional<RightPolicy> policyOfDefinition(const Value& definition) noexcept;

}  // namespace corvalen
