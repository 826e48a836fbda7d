// SPDX-License-Identifier: MIT
// One connection: messages in both directions over a local stream socket.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string_view>

#include "corvalen/error.hpp"
#include "corvalen/value.hpp"
#include "platform/peer_identity.hpp"
#include "xpc/interface.hpp"

namespace corvalen {

class ConnectionCore;
class UserQuotas;

/// Called once with the error that ended or refused a message.
using ConnectionErrorHandler = std::function<void(ErrorRef)>;
/// Called exactly once: with the result, or with the error that kept it from arriving.
using CallReply = std::function<void(Value result, ErrorRef error)>;

/// Sends messages to the other side of a connection. Cheap to copy; keeps the connection alive.
/// Safe to use from any thread; messages of one thread go out in order.
class RemoteObjectProxy {
  public:
    RemoteObjectProxy(std::shared_ptr<ConnectionCore> core, ConnectionErrorHandler onError);

    /// Sends a message that is never answered. A failure goes to the error handler, before this
    /// returns when it is known by then.
    void notify(std::string_view selector, const Array& params) const;
    /// Sends a request and waits for its answer. On failure (the connection ended, the other side
    /// refused the call) gives nil, fills `*error` and calls the error handler.
    Value call(std::string_view selector, const Array& params, ErrorRef* error = nullptr) const;
    /// The same without waiting; `reply` runs on the connection's thread, so the connection must
    /// have been resumed.
    void callWithReply(std::string_view selector, const Array& params, CallReply reply) const;

  private:
    std::shared_ptr<ConnectionCore> _core;
    ConnectionErrorHandler _onError;
};

/// Set up (exported interface, handlers) and then resumed. A resumed connection has a thread of
/// its own, which handles the messages one by one; a connection on which only `call` and `notify`
/// are used need not be resumed and has none. Public methods may be called from any thread.
/// Destroying the last reference invalidates.
class Connection : public std::enable_shared_from_this<Connection> {
  public:
    /// Connects to a service by the path of its socket. Null and `*error` (Cocoa 4099 with the
    /// POSIX error underneath) when nobody answers there.
    static std::shared_ptr<Connection> connectionToServiceAtPath(std::string_view path,
                                                                 ErrorRef* error = nullptr);
    /// Connects to the listener behind an endpoint. Always gives a connection; when the listener
    /// is gone or the descriptor is none of a listener, its first message fails with Cocoa 4099.
    static std::shared_ptr<Connection> connectionToEndpoint(const EndpointRef& endpoint);
    /// Takes over a connected stream socket (a listener does). `quotas` may be null (no limits);
    /// null when they have no place for one more connection.
    static std::shared_ptr<Connection> adoptSocket(UniqueFd socket,
                                                   std::shared_ptr<UserQuotas> quotas);

    explicit Connection(std::shared_ptr<ConnectionCore> core);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// What the other side may call. Before `resume`. `object` is shared, not copied.
    void setExportedInterface(const Interface& interface, std::shared_ptr<ExportedObject> object);
    /// Called once, on the connection's thread, when the connection has ended for whatever reason
    /// (on the thread that ends it when it was never resumed). It may come after everybody has let
    /// go of the connection, so it must own what it touches.
    void setInvalidationHandler(std::function<void()> handler);
    /// How long a message that is being sent may make no progress before the connection is
    /// dropped; unlimited unless set.
    void setSendTimeout(std::chrono::milliseconds timeout);

    void resume();
    /// Stops handling messages; those that arrive wait in the socket until `resume`.
    void suspend();
    /// Ends the connection; what waits for an answer gets Cocoa 4099. May be called from the
    /// connection's own handlers. Once only; more calls do nothing.
    void invalidate();
    /// Sends nothing more: the other side reads an end of the connection behind what was sent.
    /// Answers still arrive, until `invalidate` or the other side's end.
    void shutDownSending();

    [[nodiscard]] RemoteObjectProxy remoteObjectProxy();
    [[nodiscard]] RemoteObjectProxy remoteObjectProxyWithErrorHandler(
        ConnectionErrorHandler handler);

    /// Who is at the other end, as the kernel attested when the connection was made; unset for a
    /// connection to an endpoint.
    [[nodiscard]] const PeerIdentity& peer() const noexcept;

    /// The account of the peer's user at the listener; null without limits.
    [[nodiscard]] const std::shared_ptr<UserQuotas>& quotas() const noexcept;

    /// The connection whose message this thread is handling, or null.
    static Connection* current() noexcept;

  private:
    std::shared_ptr<ConnectionCore> _core;
};

}  // namespace corvalen
