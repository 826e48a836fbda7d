// SPDX-License-Identifier: MIT
// Accepts connections, at a listening socket and through endpoints handed out.
#pragma once

#include <functional>
#include <memory>

#include "corvalen/value.hpp"
#include "xpc/connection.hpp"
#include "xpc/user_quotas.hpp"

namespace corvalen {

class Listener;

class ListenerDelegate {
  public:
    virtual ~ListenerDelegate() = default;
    /// Sets the connection up, resumes it and answers true, or answers false: it is closed then.
    /// Called on a thread of the listener, by several at once when it serves others; must not wait.
    /// The listener keeps accepted connections alive until they end.
    virtual bool listenerShouldAcceptNewConnection(
        Listener& listener, const std::shared_ptr<Connection>& connection) = 0;
};

/// A listener at a service socket, or an anonymous one that is reached only through endpoints.
/// Begins suspended. Methods may be called from any thread.
///
/// A listener at a service socket serves strangers: its thread accepts, and never closes, reads or
/// waits for what one of them controls. What arrives at an endpoint is received, and closed when
/// it is no connection, on a thread for the endpoint's owner, one for each user at a time.
class Listener {
  public:
    /// Takes over a bound and listening socket; connections are held to the limits per user, whose
    /// accounts are in `quotas` (not null).
    static std::unique_ptr<Listener> listenerAtSocket(
        UniqueFd listeningSocket,
        std::shared_ptr<UserQuotaTable> quotas = std::make_shared<UserQuotaTable>());
    static std::unique_ptr<Listener> anonymousListener();

    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    /// Not owned; must outlive the listener. Before `resume`.
    void setDelegate(ListenerDelegate* delegate);
    void resume();
    void suspend();
    /// Stops accepting for good: closes the socket and every endpoint's other half. Connections
    /// that were accepted go on.
    void invalidate();

    /// A new endpoint of this listener; nil (no descriptor) when descriptors have run out or the
    /// listener is invalid. `owner` is whose quota it counts against; it ends when nobody holds
    /// it any more.
    [[nodiscard]] EndpointRef endpoint(const PeerIdentity* owner = nullptr);

    /// Whether an accepted connection is busy: a message is being read, handled or answered, or
    /// waits to be read, or the connection is new and its first message may be on the way; or
    /// whether a connection waits to be accepted. Never waits for a peer.
    [[nodiscard]] bool hasBusyConnection() const;
    /// Suspends and returns true when no connection but `except` (may be null) is busy and then
    /// `condition` returns true. A connection made from then on waits in the listening socket, for
    /// the next process that accepts from it. `condition` must not wait.
    [[nodiscard]] bool suspendIfIdle(const Connection* except,
                                     const std::function<bool()>& condition);

  private:
    class Impl;
    explicit Listener(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> _impl;
};

}  // namespace corvalen
