// SPDX-License-Identifier: MIT
// Accepts connections at a listening socket and through endpoints.
#pragma once

#include <functional>
#include <memory>
#include <thread>

#include "corvalen/value.hpp"
#include "xpc/connection.hpp"
#include "xpc/limits.hpp"

namespace corvalen {

class Listener;
struct ListenerState;

class ListenerDelegate {
  public:
    virtual ~ListenerDelegate() = default;
    /// Sets up and resumes the connection and returns true, or returns false to close it. Called on
    /// a thread of the listener, concurrently if it serves a socket; must not block. The listener
    /// keeps accepted connections alive until they end.
    virtual bool listenerShouldAcceptNewConnection(
        Listener& listener, const std::shared_ptr<Connection>& connection) = 0;
};

/// A listener at a service socket, or an anonymous one that is reached only through endpoints.
/// Starts suspended. Thread-safe.
///
/// A listener at a service socket serves untrusted clients. Its thread only accepts: it never
/// closes, reads or waits for what a client controls. One thread per user, started on demand,
/// receives what arrives at that user's endpoints, and closes what is not a connection.
class Listener {
  public:
    /// Takes over a bound and listening socket. `quotas` (not null) holds the accounts for the
    /// limits per user.
    static std::unique_ptr<Listener> listenerAtSocket(
        UniqueFd listeningSocket,
        std::shared_ptr<UserQuotaTable> quotas = std::make_shared<UserQuotaTable>());
    static std::unique_ptr<Listener> anonymousListener();

    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    /// Borrows `delegate`, which must outlive the listener. Call before `resume`.
    void setDelegate(ListenerDelegate* delegate);
    void resume();
    void suspend();
    /// Stops accepting permanently: closes the socket and the listener's half of every endpoint.
    /// Accepted connections continue.
    void invalidate();

    /// Returns a new endpoint, charged to the quota of `owner` (null: not charged). It has no
    /// descriptor if the quota or the descriptors are used up or the listener is invalid. It ends
    /// with its last holder.
    [[nodiscard]] EndpointRef endpoint(const PeerIdentity* owner = nullptr);

    /// Returns true if an accepted connection is busy (`ConnectionState::isBusy`) or a connection
    /// waits to be accepted. Never waits for a peer.
    [[nodiscard]] bool hasBusyConnection() const;
    /// Suspends and returns true if no connection but `except` (may be null) is busy and
    /// `condition` then returns true. Later connections wait in the listening socket for the next
    /// process that accepts from it. `condition` runs under the listener's lock and must not block.
    [[nodiscard]] bool suspendIfIdle(const Connection* except,
                                     const std::function<bool()>& condition);

  private:
    explicit Listener(std::shared_ptr<ListenerState> state);
    void join();

    std::shared_ptr<ListenerState> _state;
    std::thread _thread;
};

}  // namespace corvalen
