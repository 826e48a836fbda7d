// SPDX-License-Identifier: MIT
// Limits concurrent questions to the authority, and detects peers that have gone.
#pragma once

#include <poll.h>

#include <array>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <set>

#include "platform/authorization/peer_identity.hpp"

namespace corvalen {

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

}  // namespace corvalen
