// SPDX-License-Identifier: MIT
// polkit(8) as the authority uses it: questions on the bus, and files.
#pragma once

#include <poll.h>

#include <array>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "platform/authorization/authorization.hpp"
#include "platform/authorization/identity.hpp"
#include "platform/linux/authorization/reference.hpp"

struct sd_bus;

namespace corvalen {

// Questions to polkit's authority on the system bus (org.freedesktop.PolicyKit1.Authority), their
// limits, and the end of the peers that they wait for: polkit_bus.cpp.

/// Watches a peer's process and connection during a request. Borrows the peer.
class PeerWatch {
  public:
    explicit PeerWatch(const PeerIdentity& peer) noexcept;

    /// Descriptors that become ready when the peer may be gone; poll(2) ignores those of -1.
    [[nodiscard]] const std::array<pollfd, 2>& descriptors() const noexcept { return _descriptors; }
    /// Returns whether the process has ended, or has closed its end of the connection or its
    /// sending side.
    [[nodiscard]] bool isGone() const noexcept;

  private:
    const PeerIdentity& _peer;
    std::array<pollfd, 2> _descriptors;
};

/// Maximum number of turns at once, of all users. Each uses a connection to the system bus, which
/// allows one user (root) 256 by default (dbus-daemon(1)).
inline constexpr std::size_t kMaxTurns = 64;

/// Allows one open question per user. Any thread may call.
class QuestionGate {
  public:
    /// The turn of one user, until destruction.
    class Turn {
      public:
        Turn(QuestionGate& gate, uid_t user) noexcept : _gate(&gate), _user(user) {}
        Turn(Turn&& other) noexcept : _gate(other._gate), _user(other._user) {
            other._gate = nullptr;
        }
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;
        Turn& operator=(Turn&&) = delete;
        ~Turn();

      private:
        QuestionGate* _gate;
        uid_t _user;
    };

    /// Waits until this user has no open question and a turn is free. Returns std::nullopt if the
    /// peer goes away meanwhile.
    [[nodiscard]] std::optional<Turn> enter(uid_t user, const PeerWatch& watch);

  private:
    [[nodiscard]] bool tryToEnter(uid_t user);

    std::mutex _lock;
    std::condition_variable _left;
    std::set<uid_t> _asked;
};

enum class PolkitVerdict : std::uint8_t {
    authorized,
    /// A user has to authenticate first, but prompting was not allowed or there is no agent.
    needsPrompt,
    denied,
    /// The user dismissed the prompt.
    dismissed,
    /// The peer went away; its prompt was withdrawn.
    abandoned,
    /// No reply (no bus, no authority, or it ended), or an unreadable one.
    unreachable,
};

struct PolkitQuestion {
    std::string action;
    RightPurpose purpose;
};

/// One connection to the system bus. Used by one thread at a time.
class PolkitConnection {
  public:
    /// Returns null if there is no system bus.
    static std::unique_ptr<PolkitConnection> open();

    /// Starts the authority if needed and returns its version; std::nullopt without a reply within
    /// 5 seconds.
    [[nodiscard]] std::optional<std::string> authorityVersion();

    /// Checks whether the peer may do the action, for 25 seconds at most; with `mayAsk` until the
    /// user replies or the peer is gone. After `abandoned` or `unreachable` the connection must not
    /// be used again.
    [[nodiscard]] PolkitVerdict checkAuthorization(const PeerIdentity& peer,
                                                   const PolkitQuestion& question, bool mayAsk,
                                                   const PeerWatch& watch);

  private:
    struct Closer {
        void operator()(sd_bus* bus) const noexcept;
    };
    explicit PolkitConnection(sd_bus* bus) noexcept : _bus(bus) {}
    /// Waits at most a second for the bus or the peer. Returns false if that fails.
    [[nodiscard]] bool waitForTraffic(const PeerWatch& watch);
    /// Cancels the check under way, and waits at most a second for its verdict.
    void cancelCheck(const std::optional<PolkitVerdict>& verdict) noexcept;

    std::unique_ptr<sd_bus, Closer> _bus;
};

// A policy file for each right, and the rules of this machine: polkit_files.cpp.

/// The policy files of one directory. polkit notices changes itself, within a second. The caller
/// checks names. Any thread may call.
class PolkitPolicyFiles {
  public:
    explicit PolkitPolicyFiles(std::string_view folder) : _folder(folder) {}

    /// Returns kAuthorizationDenied if there is no such file.
    [[nodiscard]] AuthorizationStatus get(std::string_view rightName) const;
    [[nodiscard]] bool set(std::string_view rightName, RightPolicy policy, std::string_view prompt,
                           std::string_view localizationTable) const;
    /// Returns false also for a file that was installed with the daemon: its package removes it.
    [[nodiscard]] bool remove(std::string_view rightName) const;

  private:
    std::string _folder;
};

/// Returns the text of a policy file. Characters that XML cannot carry (control characters, bytes
/// that are not UTF-8) become question marks.
[[nodiscard]] std::string polkitPolicyText(std::string_view rightName, RightPolicy policy,
                                           std::string_view prompt,
                                           std::string_view localizationTable);

/// Returns the text marked as installed, which `PolkitPolicyFiles::remove` keeps.
[[nodiscard]] std::string installedPolkitPolicyText(std::string policyText);

/// Reads the rule files of polkit(8). Returns false only if every rule is a function that uses its
/// action's `id` and details of other names only. Unreadable files and directories may contain any
/// rule. Any thread may call that holds no ScopedCapabilities.
[[nodiscard]] bool mayPolkitRulesLookAt(const PurposeDetails& details);

}  // namespace corvalen
