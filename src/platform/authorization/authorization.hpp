// SPDX-License-Identifier: MIT
// The system's authorization service: rights, their definitions, and grants.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "corvalen/value.hpp"
#include "platform/authorization/identity.hpp"

namespace corvalen {

/// Status of an authorization call; sent over the wire.
using AuthorizationStatus = std::int32_t;
inline constexpr AuthorizationStatus kAuthorizationSuccess = 0;
inline constexpr AuthorizationStatus kAuthorizationInvalidSet = -60001;
inline constexpr AuthorizationStatus kAuthorizationInvalidRef = -60002;
inline constexpr AuthorizationStatus kAuthorizationInvalidPointer = -60004;
inline constexpr AuthorizationStatus kAuthorizationDenied = -60005;
inline constexpr AuthorizationStatus kAuthorizationCanceled = -60006;
inline constexpr AuthorizationStatus kAuthorizationInteractionNotAllowed = -60007;
inline constexpr AuthorizationStatus kAuthorizationInternal = -60008;

/// Size and first bytes of an authorization in external form. The other 24 bytes name it among
/// those of its process and prove nothing.
inline constexpr std::size_t kAuthorizationExternalFormLength = 32;
inline constexpr std::string_view kAuthorizationExternalFormMagic = "QRLAUTH\x01";

/// Names and values that the authority's rules can read.
using PurposeDetails = std::vector<std::pair<std::string, std::string>>;

/// What a right is requested for. All texts are valid UTF-8 without control characters and markup
/// characters, so that agents may display them unchanged.
struct RightPurpose {
    /// The sentence of the prompt, its translation domain, and the text displayed below it.
    std::string prompt;
    std::string textDomain;
    std::string shown;
    PurposeDetails details;
    /// False if `details` leaves out or cuts something that the request names.
    bool isComplete = true;
};
/// Builds the purpose; called only if the authority has to decide.
using RightPurposeSource = std::function<RightPurpose()>;

/// An authorization reference: its process, and its name among those of that process. Destruction
/// frees only the reference; its rights stay until they are destroyed or expire.
class Authorization {
  public:
    virtual ~Authorization() = default;

    /// Requests one right and allows interaction with the user; blocks until it is decided. With an
    /// empty `purpose` the authority sees only the right.
    virtual AuthorizationStatus copyRight(std::string_view rightName,
                                          const RightPurposeSource& purpose) = 0;
    /// Forgets all grants of this authorization.
    virtual void destroyRights() = 0;
};

/// The decision that a request for a right would get.
enum class RightOutlook : std::uint8_t {
    granted,
    /// A user would have to authenticate first.
    needsAuthentication,
    denied,
    /// The authority is unreachable, or this user cannot read its definitions.
    unknown,
};

/// The authority of the machine. One instance for the process; any thread may call.
class AuthorizationService {
  public:
    virtual ~AuthorizationService() = default;

    /// Returns a description of the authority, for the log and for people.
    [[nodiscard]] virtual std::string description() const = 0;

    /// Returns a reference of the peer that sent this external form. Returns null and sets
    /// `*status` if the bytes are not an external form.
    virtual std::unique_ptr<Authorization> createFromExternalForm(std::string_view externalForm,
                                                                  const PeerIdentity& peer,
                                                                  AuthorizationStatus* status) = 0;
    /// Returns a new reference of this process, without rights.
    virtual std::unique_ptr<Authorization> create(AuthorizationStatus* status) = 0;

    /// Returns the decision that this process would get now, without a purpose. Prompts nobody and
    /// grants nothing.
    [[nodiscard]] virtual RightOutlook outlook(std::string_view /*rightName*/) {
        return RightOutlook::unknown;
    }

    /// Returns success if the right is defined, else kAuthorizationDenied.
    virtual AuthorizationStatus rightGet(std::string_view rightName) = 0;
    /// Defines a right. `definition` is the string "allow" or "authenticate-admin" or the
    /// dictionary {"rule": "default"}; users see the prompt when they authenticate. Only references
    /// of user 0 may define and remove rights.
    virtual AuthorizationStatus rightSet(Authorization* authorization, std::string_view rightName,
                                         const Value& definition, std::string_view prompt,
                                         std::string_view localizationTable) = 0;
    virtual AuthorizationStatus rightRemove(Authorization* authorization,
                                            std::string_view rightName) = 0;
};

/// A right and its definition, as for `rightSet`.
struct RightDefinition {
    std::string name;
    Value definition;
    std::string prompt;
};

/// The built-in authority reads definitions from a rights file: "allow" admits every user, all
/// others only user 0. `defaults` define rights that the file, which need not exist, does not;
/// undefined rights are denied. `rightGet` considers only the file. While the file is not trusted
/// or not readable, requests fail with kAuthorizationInternal. The service must outlive its
/// references.
[[nodiscard]] std::unique_ptr<AuthorizationService> makeBuiltInAuthorizationService(
    std::string_view rightsFile, std::vector<RightDefinition> defaults = {});

/// The directory of polkit's actions (polkit(8)).
inline constexpr std::string_view kPolkitActionsDirectory = "/usr/share/polkit-1/actions";

/// The authority polkit, over the system bus. A right is an action with a policy file of its own in
/// `actionsDirectory`. Grants are remembered for a while for one process, authorization and right,
/// and for one purpose only if a rule may have read it. Failures grant nothing. Returns null if
/// polkit does not reply now.
[[nodiscard]] std::unique_ptr<AuthorizationService> makePolkitAuthorizationService(
    std::string_view actionsDirectory = kPolkitActionsDirectory);

/// Chooses the authority of this machine: polkit if it replies now, else the built-in authority
/// with a rights file in `storeDirectory`.
[[nodiscard]] std::unique_ptr<AuthorizationService> makeSystemAuthorizationService(
    std::string_view storeDirectory, std::vector<RightDefinition> defaults);

}  // namespace corvalen
