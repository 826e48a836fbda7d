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

/// A reference of one peer.
class AuthorizationReference : public Authorization {
  public:
    AuthorizationReference(PeerIdentity peer, const AuthorizationName& name)
        : _peer(std::move(peer)), _name(name) {}

    [[nodiscard]] const PeerIdentity& peer() const noexcept { return _peer; }
    [[nodiscard]] const AuthorizationName& name() const noexcept { return _name; }

  private:
    PeerIdentity _peer;
    AuthorizationName _name;
};

/// Nothing when the bytes are no external form.
[[nodiscard]] std::optional<AuthorizationName> authorizationNameOfExternalForm(
    std::string_view externalForm) noexcept;

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
