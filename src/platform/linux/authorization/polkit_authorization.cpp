// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include <mutex>
#include <vector>

#include "platform/authorization/authorization.hpp"
#include "platform/linux/authorization/polkit.hpp"
#include "platform/linux/authorization/reference.hpp"

namespace corvalen {
namespace {

/// Maximum number of idle bus connections kept for later checks.
constexpr std::size_t kMaxIdleConnections = 4;

/// Returns the status for a verdict other than `authorized`.
AuthorizationStatus statusOfVerdict(PolkitVerdict verdict) noexcept {
    switch (verdict) {
        case PolkitVerdict::needsPrompt:
            return kAuthorizationInteractionNotAllowed;
        case PolkitVerdict::dismissed:
            return kAuthorizationCanceled;
        case PolkitVerdict::unreachable:
            return kAuthorizationInternal;
        case PolkitVerdict::authorized:
        case PolkitVerdict::denied:
        case PolkitVerdict::abandoned:
            break;
    }
    return kAuthorizationDenied;
}

/// Idle connections to the bus. Any thread may call.
class PolkitConnectionPool {
  public:
    /// Returns an idle connection, or null.
    std::unique_ptr<PolkitConnection> takeIdle() {
        const std::scoped_lock locked(_lock);
        if (_idle.empty()) return nullptr;
        auto connection = std::move(_idle.back());
        _idle.pop_back();
        return connection;
    }
    void giveBack(std::unique_ptr<PolkitConnection> connection) {
        const std::scoped_lock locked(_lock);
        if (_idle.size() < kMaxIdleConnections) _idle.push_back(std::move(connection));
    }

  private:
    std::mutex _lock;
    std::vector<std::unique_ptr<PolkitConnection>> _idle;
};

class PolkitAuthorizationService : public ReferenceAuthority {
  public:
    PolkitAuthorizationService(std::string_view actionsDirectory, std::string version,
                               std::unique_ptr<PolkitConnection> connection)
        : _policies(actionsDirectory), _version(std::move(version)) {
        _pool.giveBack(std::move(connection));
    }

    [[nodiscard]] std::string description() const override {
        return fmt::format("polkit {}", _version);
    }
    [[nodiscard]] RightOutlook outlook(std::string_view rightName) override;
    AuthorizationStatus rightGet(std::string_view rightName) override;
    AuthorizationStatus rightSet(Authorization* authorization, std::string_view rightName,
                                 const Value& definition, std::string_view prompt,
                                 std::string_view localizationTable) override;
    AuthorizationStatus rightRemove(Authorization* authorization,
                                    std::string_view rightName) override;

    [[nodiscard]] AuthorizationStatus check(const AuthorizationReference& reference,
                                            std::string_view rightName,
                                            const RightPurposeSource& purpose) override;
    void forget(const AuthorizationReference& reference) override {
        _grants.forgetAuthorization(reference.peer(), reference.name());
    }

  private:
    /// A question and the reference and scope of its grant.
    struct Case {
        const AuthorizationReference& reference;
        PolkitQuestion question;
        std::string scope;
    };
    [[nodiscard]] bool isRemembered(const AuthorizationReference& reference, std::string_view right,
                                    std::string_view scope) const;
    void remember(const Case& asked);
    [[nodiscard]] PolkitVerdict decide(const Case& asked, bool mayAskUser, const PeerWatch& watch);
    [[nodiscard]] PolkitVerdict ask(const Case& asked, bool mayAskUser, const PeerWatch& watch);
    [[nodiscard]] PolkitVerdict askOver(std::unique_ptr<PolkitConnection> connection,
                                        const Case& asked, bool mayAskUser, const PeerWatch& watch);

    PolkitPolicyFiles _policies;
    const std::string _version;
    PolkitConnectionPool _pool;
    QuestionGate _questions;
    QuestionGate _prompts;
    GrantMemory _grants;
};

/// Returns all details of a question that a rule can read.
std::string scopeOf(const RightPurpose& purpose) {
    std::string scope;
    for (const auto& [name, value] : purpose.details)
        scope.append(name).append("=").append(value).append("\n");
    return scope;
}

bool PolkitAuthorizationService::isRemembered(const AuthorizationReference& reference,
                                              std::string_view right,
                                              std::string_view scope) const {
    return _grants.isRemembered(reference.peer(), reference.name(), right, scope,
                                GrantMemory::now());
}

/// polkit does not report whether a rule read the details. The grant covers other details only if
/// no rule can have read them, or the peer is user 0, to whom polkit grants everything.
void PolkitAuthorizationService::remember(const Case& asked) {
    const RightPurpose& purpose = asked.question.purpose;
    const bool holdsForAll =
        asked.reference.peer().uid == 0 || !mayPolkitRulesLookAt(purpose.details);
    if (!holdsForAll && !purpose.isComplete) return;
    _grants.remember(asked.reference.peer(), asked.reference.name(), asked.question.action,
                     holdsForAll ? std::string_view() : asked.scope, GrantMemory::now());
}

AuthorizationStatus PolkitAuthorizationService::check(const AuthorizationReference& reference,
                                                      std::string_view rightName,
                                                      const RightPurposeSource& purpose) {
    const auto& peer = reference.peer();
    const bool isKnown = peer.pid > 0 && peer.startTime != 0 && peer.uid != static_cast<uid_t>(-1);
    // polkit must not check an ended process: its pid may belong to another.
    if (!isKnown || !isValidRightName(rightName) || !peer.isAlive()) return kAuthorizationDenied;
    if (isRemembered(reference, rightName, {})) return kAuthorizationSuccess;

    Case asked{reference, {std::string(rightName), purpose ? purpose() : RightPurpose()}, {}};
    asked.scope = scopeOf(asked.question.purpose);
    if (isRemembered(reference, rightName, asked.scope)) return kAuthorizationSuccess;

    const PeerWatch watch(peer);
    auto verdict = decide(asked, false, watch);
    if (verdict == PolkitVerdict::needsPrompt) verdict = decide(asked, true, watch);
    if (verdict != PolkitVerdict::authorized) return statusOfVerdict(verdict);
    return peer.isAlive() ? kAuthorizationSuccess : kAuthorizationDenied;
}

PolkitVerdict PolkitAuthorizationService::decide(const Case& asked, bool mayAskUser,
                                                 const PeerWatch& watch) {
    auto& gate = mayAskUser ? _prompts : _questions;
    const auto turn = gate.enter(asked.reference.peer().uid, watch);
    if (!turn) return PolkitVerdict::abandoned;
    // Another connection may have got the same grant during the wait.
    if (isRemembered(asked.reference, asked.question.action, asked.scope))
        return PolkitVerdict::authorized;
    const PolkitVerdict verdict = ask(asked, mayAskUser, watch);
    // Within this turn, or the next connection would ask again. A prompt takes time; the grant is
    // valid only for the process that made the request.
    if (verdict == PolkitVerdict::authorized && asked.reference.peer().isAlive()) remember(asked);
    return verdict;
}

PolkitVerdict PolkitAuthorizationService::ask(const Case& asked, bool mayAskUser,
                                              const PeerWatch& watch) {
    if (auto idle = _pool.takeIdle()) {
        const auto verdict = askOver(std::move(idle), asked, mayAskUser, watch);
        // The bus may have restarted since. Users are never prompted twice, though.
        if (verdict != PolkitVerdict::unreachable || mayAskUser) return verdict;
    }
    return askOver(PolkitConnection::open(), asked, mayAskUser, watch);
}

PolkitVerdict PolkitAuthorizationService::askOver(std::unique_ptr<PolkitConnection> connection,
                                                  const Case& asked, bool mayAskUser,
                                                  const PeerWatch& watch) {
    if (!connection) return PolkitVerdict::unreachable;
    const auto verdict =
        connection->checkAuthorization(asked.reference.peer(), asked.question, mayAskUser, watch);
    if (verdict != PolkitVerdict::unreachable && verdict != PolkitVerdict::abandoned) {
        _pool.giveBack(std::move(connection));
    }
    return verdict;
}

RightOutlook PolkitAuthorizationService::outlook(std::string_view rightName) {
    const PeerIdentity self = ownIdentity();
    const AuthorizationReference reference(*this, self, {});
    const PeerWatch watch(self);
    const Case asked{reference, {std::string(rightName), {}}, {}};
    switch (ask(asked, false, watch)) {
        case PolkitVerdict::authorized:
            return RightOutlook::granted;
        case PolkitVerdict::needsPrompt:
            return RightOutlook::needsAuthentication;
        case PolkitVerdict::denied:
            return RightOutlook::denied;
        default:
            return RightOutlook::unknown;
    }
}

AuthorizationStatus PolkitAuthorizationService::rightGet(std::string_view rightName) {
    return isValidRightName(rightName) ? _policies.get(rightName) : kAuthorizationDenied;
}

AuthorizationStatus PolkitAuthorizationService::rightSet(Authorization* authorization,
                                                         std::string_view rightName,
                                                         const Value& definition,
                                                         std::string_view prompt,
                                                         std::string_view localizationTable) {
    if (const auto status = mayChangeRights(authorization)) return status;
    const auto policy = policyOfDefinition(definition);
    if (!isValidRightName(rightName) || !policy) return kAuthorizationInvalidSet;
    const bool isSet = _policies.set(rightName, *policy, prompt, localizationTable);
    _grants.forgetRight(rightName);
    return isSet ? kAuthorizationSuccess : kAuthorizationInternal;
}

AuthorizationStatus PolkitAuthorizationService::rightRemove(Authorization* authorization,
                                                            std::string_view rightName) {
    if (const auto status = mayChangeRights(authorization)) return status;
    if (!isValidRightName(rightName)) return kAuthorizationInvalidSet;
    // Remembered grants stay until they expire: an uninstaller removes the rights first, and must
    // still be able to delete the daemon's files.
    return _policies.remove(rightName) ? kAuthorizationSuccess : kAuthorizationInternal;
}

}  // namespace

std::unique_ptr<AuthorizationService> makePolkitAuthorizationService(
    std::string_view actionsDirectory) {
    auto connection = PolkitConnection::open();
    if (!connection) return nullptr;
    auto version = connection->authorityVersion();
    if (!version) return nullptr;
    return std::make_unique<PolkitAuthorizationService>(actionsDirectory, std::move(*version),
                                                        std::move(connection));
}

}  // namespace corvalen
