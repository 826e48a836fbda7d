// SPDX-License-Identifier: MIT
// The order in which people are asked, and whether the one who asks is still there.
#pragma once

#include <poll.h>

#include <array>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <set>

#include "platform/peer_identity.hpp"

namespace corvalen {

/// Watches a peer while something is done for it: its process, and the connection it asks on.
class PeerWatch {
  public:
    explicit PeerWatch(const PeerIdentity& peer) noexcept;

    /// Ready when the peer may be gone; entries of the value -1 are to be left out by poll(2).
    [[nodiscard]] const std::array<pollfd, 2>& descriptors() const noexcept { return _descriptors; }
    /// The process has ended, or has closed its end of the connection or its sending side.
    [[nodiscard]] bool isGone() const noexcept;

  private:
    const PeerIdentity& _peer;
    std::array<pollfd, 2> _descriptors;
};

/// How many turns may be taken at once, whoever takes them: each holds a connection to the system
/// bus, which gives one user (root) 256 of them by default (dbus-daemon(1)).
inline constexpr std::size_t kMaxTurns = 64;

/// Lets one question be open per user. Any thread may call.
class QuestionGate {
  public:
    /// The turn of one user; ends with its destructor.
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

    /// Waits until no other question of this user is open. Nothing when the peer went away
    /// meanwhile.
    [[nodiscard]] std::optional<Turn> enter(uid_t user, const PeerWatch& watch);

  private:
    [[nodiscard]] bool tryToEnter(uid_t user);

    std::mutex _lock;
    std::condition_variable _left;
    std::set<uid_t> _asked;
};

}  // namespace corvalen
