// SPDX-License-Identifier: MIT
#include "platform/linux/authorization/prompts.hpp"

#include <chrono>

namespace corvalen {
namespace {

/// Interval at which a waiting thread checks the peer.
constexpr std::chrono::milliseconds kLookAfterPeer{200};

}  // namespace

PeerWatch::PeerWatch(const PeerIdentity& peer) noexcept
    : _peer(peer),
      // A pidfd is readable once its process has ended. A peer that closes its sending side
      // withdraws its request, and may still read the reply.
      _descriptors{pollfd{peer.processDescriptor ? peer.processDescriptor->get() : -1, POLLIN, 0},
                   pollfd{peer.socket, POLLRDHUP, 0}} {}

bool PeerWatch::isGone() const noexcept {
    pollfd connection = _descriptors[1];
    if (connection.fd >= 0 && ::poll(&connection, 1, 0) > 0) return true;
    return !_peer.isAlive();
}

QuestionGate::Turn::~Turn() {
    if (_gate == nullptr) return;
    {
        const std::scoped_lock locked(_gate->_lock);
        _gate->_asked.erase(_user);
    }
    _gate->_left.notify_all();
}

bool QuestionGate::tryToEnter(uid_t user) {
    return _asked.size() < kMaxTurns && _asked.insert(user).second;
}

std::optional<QuestionGate::Turn> QuestionGate::enter(uid_t user, const PeerWatch& watch) {
    std::unique_lock locked(_lock);
    while (!tryToEnter(user)) {
        _left.wait_for(locked, kLookAfterPeer);
        if (watch.isGone()) return std::nullopt;
    }
    return std::optional<Turn>(std::in_place, *this, user);
}

}  // namespace corvalen
