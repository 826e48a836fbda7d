// SPDX-License-Identifier: MIT
// The system's authorization service: rights, their definitions, and who holds them.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "corvalen/value.hpp"
#include "platform/peer_identity.hpp"

namespace corvalen {

/// Status of an authorization call; the numbers go over the wire.
using AuthorizationStatus = std::int32_t;
inline constexpr AuthorizationStatus kAuthorizationSuccess = 0;
inline constexpr AuthorizationStatus kAuthorizationInvalidSet = -60001;
inline constexpr AuthorizationStatus kAuthorizationInvalidRef = -60002;
inline constexpr AuthorizationStatus kAuthorizationInvalidPointer = -60004;
inline constexpr AuthorizationStatus kAuthorizationDenied = -60005;
inline constexpr AuthorizationStatus kAuthorizationCanceled = -60006;
inline constexpr AuthorizationStatus kAuthorizationInteractionNotAllowed = -60007;
inline constexpr AuthorizationStatus kAuthorizationInternal = -60008;

/// Size and first bytes of an authorization in external form; the 24 bytes that follow name it
/// among those of its process and prove nothing.
inline constexpr std::size_t kAuthorizationExternalFormLength = 32;
inline constexpr std::string_view kAuthorizationExternalFormMagic = "QRLAUTH\x01";

/// Names and values that a rule of the authority can look at.
using PurposeDetails = std::vector<std::pair<std::string, std::string>>;

/// What a right is asked for. All texts are valid UTF-8 without control characters and without
/// characters of markup: agents may show them as they are.
struct RightPurpose {
    /// The sentence of the prompt, the domain in which it is translated, and what is shown below
    /// it.
    std::string prompt;
    std::string textDomain;
    std::string shown;
    PurposeDetails details;
    /// False when something that the request names is cut or left out in `details`.
    bool isComplete = true;
};
/// Makes the purpose; called only when somebody has to decide.
using RightPurposeSource = std::function<RightPurpose()>;

/// An authorization reference: whose it is, and its name among those of that process. The
/// destructor frees it; its rights live on unless they were destroyed.
class Authorization {
  public:
    virtual ~Authorization() = default;

    /// Asks for one right, allowing interaction with the user; blocks as long as that takes. An
    /// empty `purpose` tells the authority nothing but the right.
    virtual AuthorizationStatus copyRight(std::string_view rightName,
                                          const RightPurposeSource& purpose) = 0;
    /// Forgets every right that this authorization acquired.
    virtual void destroyRights() = 0;
};

/// Whether a process would be granted a right.
enum class RightOutlook : std::uint8_t {
    granted,
    /// Somebody would have to authenticate first.
    needsAuthentication,
    denied,
    /// The authority cannot be asked, or its definitions cannot be read by this user.
    unknown,
};

/// The authority of the machine. One instance for the process; any thread may call.
class AuthorizationService {
  public:
    virtual ~AuthorizationService() = default;

    /// Which authority is in force, for the log and for people.
    [[nodiscard]] virtual std::string description() const = 0;

    /// Turns the external form that a peer sent into a reference of that peer. Null and a status
    /// when the bytes are no external form.
    virtual std::unique_ptr<Authorization> createFromExternalForm(std::string_view externalForm,
                                                                  const PeerIdentity& peer,
                                                                  AuthorizationStatus* status) = 0;
    /// A fresh reference of this process itself, without rights.
    virtual std::unique_ptr<Authorization> create(AuthorizationStatus* status) = 0;

    /// What this process would be told if it asked for the right now, for nothing in particular.
    /// Asks nobody and grants nothing.
    [[nodiscard]] virtual RightOutlook outlook(std::string_view /*rightName*/) {
        return RightOutlook::unknown;
    }

    /// Success when the right is defined, kAuthorizationDenied when it is not.
    virtual AuthorizationStatus rightGet(std::string_view rightName) = 0;
    /// Defines a right: `definition` is the string "allow" or "authenticate-admin" or the
    /// dictionary {"rule": "default"}; the prompt is shown when the user is asked.
    virtual AuthorizationStatus rightSet(Authorization* authorization, std::string_view rightName,
                                         const Value& definition, std::string_view prompt,
                                         std::string_view localizationTable) = 0;
    virtual AuthorizationStatus rightRemove(Authorization* authorization,
                                            std::string_view rightName) = 0;
};

/// A right as those who define it describe it; `definition` as for `rightSet`.
struct RightDefinition {
    std::string name;
    Value definition;
    std::string prompt;
};

/// The built-in authority: definitions in a rights file; "allow" admits anybody, everything else
/// only user 0. The file need not exist: a right that it does not define has the definition that
/// `defaults` gives, and one that is in neither is denied. Only `rightGet` speaks of the file
/// alone. Nothing is granted by a file that cannot be trusted or read (kAuthorizationInternal).
/// The service outlives its references.
[[nodiscard]] std::unique_ptr<AuthorizationService> makeBuiltInAuthorizationService(
    std::string_view rightsFile, std::vector<RightDefinition> defaults = {});

/// Where polkit reads its actions (polkit(8)).
inline constexpr std::string_view kPolkitActionsDirectory = "/usr/share/polkit-1/actions";

/// polkit, asked over the system bus: a right is an action, defined by a policy file of its own in
/// `actionsDirectory`. A grant is remembered for a while for the process, the authorization and the
/// right it was given to, and for that purpose only where a rule may have looked at it. Nothing is
/// granted by what fails. Null when no polkit answers now.
[[nodiscard]] std::unique_ptr<AuthorizationService> makePolkitAuthorizationService(
    std::string_view actionsDirectory = kPolkitActionsDirectory);

/// The authority of this machine, found out now and kept: polkit where it answers, else the
/// built-in authority with its rights file in `storeDirectory`.
[[nodiscard]] std::unique_ptr<AuthorizationService> makeSystemAuthorizationService(
    std::string_view storeDirectory, std::vector<RightDefinition> defaults);

}  // namespace corvalen
