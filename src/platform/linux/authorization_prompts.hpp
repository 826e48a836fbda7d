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
    /// The process has ended, or has closed its end of the connection.
    [[nodiscard]] bool isGone() const noexcept;

  private:
    const PeerIdentity& _peer;
    std::array<pollfd, 2> _descriptors;
};

/// Lets one prompt be open per user. Any thread may call.
class PromptGate {
  public:
    /// The turn of one user; ends with its destructor.
    class Turn {
      public:
        Turn(PromptGate& gate, uid_t user) noexcept : _gate(&gate), _user(user) {}
        Turn(Turn&& other) noexcept : _gate(other._gate), _user(other._user) {
            other._gate = nullptr;
        }
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;
        Turn& operator=(Turn&&) = delete;
        ~Turn();

      private:
        PromptGate* _gate;
        uid_t _user;
    };

    /// Waits until no other prompt of this user is open. Nothing when the peer went away meanwhile.
    [[nodiscard]] std::optional<Turn> enter(uid_t user, const PeerWatch& watch);

  private:
    std::mutex _lock;
    std::condition_variable _left;
    std::set<uid_t> _asked;
};

}  // namespace corvalen
