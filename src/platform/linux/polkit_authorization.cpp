// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include <mutex>
#include <vector>

#include "platform/authorization.hpp"
#include "platform/linux/authorization_grants.hpp"
#include "platform/linux/authorization_prompts.hpp"
#include "platform/linux/authorization_reference.hpp"
#include "platform/linux/polkit_authorization_bus.hpp"
#include "platform/linux/polkit_authorization_policies.hpp"

namespace corvalen {
namespace {

/// How many connections to the bus are kept for the next check.
constexpr std::size_t kMaxIdleConnections = 4;

/// The status of a check that grants nothing.
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

/// Connections to the bus for threads that ask at the same time. Any thread may call.
class PolkitConnectionPool {
  public:
    /// An idle connection, or null.
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
    AuthorizationStatus rightGet(std::string_view rightName) override;
    AuthorizationStatus rightSet(Authorization* authorization, std::string_view rightName,
                                 const Value& definition, std::string_view prompt,
                                 std::string_view localizationTable) override;
    AuthorizationStatus rightRemove(Authorization* authorization,
                                    std::string_view rightName) override;

    [[nodiscard]] AuthorizationStatus check(const AuthorizationReference& reference,
                                            std::string_view rightName) override;
    void forget(const AuthorizationReference& reference) override {
        _grants.forgetAuthorization(reference.peer(), reference.name());
    }

  private:
    [[nodiscard]] bool isRemembered(const AuthorizationReference& reference,
                                    const std::string& action) const;
    [[nodiscard]] PolkitVerdict question(const AuthorizationReference& reference,
                                         const std::string& action, bool mayAskUser,
                                         const PeerWatch& watch);
    [[nodiscard]] PolkitVerdict ask(const PeerIdentity& peer, const std::string& action,
                                    bool mayAskUser, const PeerWatch& watch);
    [[nodiscard]] PolkitVerdict askOver(std::unique_ptr<PolkitConnection> connection,
                                        const PeerIdentity& peer, const std::string& action,
                                        bool mayAskUser, const PeerWatch& watch);

    PolkitPolicyFiles _policies;
    const std::string _version;
    PolkitConnectionPool _pool;
    QuestionGate _questions;
    QuestionGate _prompts;
    GrantMemory _grants;
};

bool PolkitAuthorizationService::isRemembered(const AuthorizationReference& reference,
                                              const std::string& action) const {
    return _grants.isRemembered(reference.peer(), reference.name(), action, GrantMemory::now());
}

AuthorizationStatus PolkitAuthorizationService::check(const AuthorizationReference& reference,
                                                      std::string_view rightName) {
    const auto& peer = reference.peer();
    const bool isKnown = peer.pid > 0 && peer.startTime != 0 && peer.uid != static_cast<uid_t>(-1);
    // An ended process must not be asked about: its number may already be another's.
    if (!isKnown || !isValidRightName(rightName) || !peer.isAlive()) return kAuthorizationDenied;
    const std::string action(rightName);
    if (isRemembered(reference, action)) return kAuthorizationSuccess;

    const PeerWatch watch(peer);
    auto verdict = question(reference, action, false, watch);
    if (verdict == PolkitVerdict::needsPrompt) verdict = question(reference, action, true, watch);
    if (verdict != PolkitVerdict::authorized) return statusOfVerdict(verdict);
    // A prompt takes time: what was granted holds only for the process that asked.
    if (!peer.isAlive()) return kAuthorizationDenied;
    _grants.remember(peer, reference.name(), action, GrantMemory::now());
    return kAuthorizationSuccess;
}

PolkitVerdict PolkitAuthorizationService::question(const AuthorizationReference& reference,
                                                   const std::string& action, bool mayAskUser,
                                                   const PeerWatch& watch) {
    auto& gate = mayAskUser ? _prompts : _questions;
    const auto turn = gate.enter(reference.peer().uid, watch);
    if (!turn) return PolkitVerdict::abandoned;
    // While this one waited, the same right may have been granted on another connection.
    if (isRemembered(reference, action)) return PolkitVerdict::authorized;
    return ask(reference.peer(), action, mayAskUser, watch);
}

PolkitVerdict PolkitAuthorizationService::ask(const PeerIdentity& peer, const std::string& action,
                                              bool mayAskUser, const PeerWatch& watch) {
    if (auto idle = _pool.takeIdle()) {
        const auto verdict = askOver(std::move(idle), peer, action, mayAskUser, watch);
        // The bus may have been started anew since. Nobody is asked a second time, though.
        if (verdict != PolkitVerdict::unreachable || mayAskUser) return verdict;
    }
    return askOver(PolkitConnection::open(), peer, action, mayAskUser, watch);
}

PolkitVerdict PolkitAuthorizationService::askOver(std::unique_ptr<PolkitConnection> connection,
                                                  const PeerIdentity& peer,
                                                  const std::string& action, bool mayAskUser,
                                                  const PeerWatch& watch) {
    if (!connection) return PolkitVerdict::unreachable;
    const auto verdict = connection->checkAuthorization(peer, action, mayAskUser, watch);
    if (verdict != PolkitVerdict::unreachable && verdict != PolkitVerdict::abandoned) {
        _pool.giveBack(std::move(connection));
    }
    return verdict;
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
    // Who was granted the right keeps it for its time: who uninstalls the helper removes the rights
    // first, and still has to be able to delete its files.
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
