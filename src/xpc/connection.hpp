// SPDX-License-Identifier: MIT
// One connection: messages in both directions over a local stream socket, and the methods that one
// side exports to the other.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "corvalen/error.hpp"
#include "corvalen/value.hpp"
#include "platform/authorization/identity.hpp"

namespace corvalen {

class Connection;

/// One method. A method with a reply accepts only requests; one without also accepts notifications.
struct InterfaceMethod {
    std::string_view selector;
    bool hasReply = false;
};

/// A named list of methods; borrows constant storage that outlives every connection.
struct Interface {
    std::string_view name;
    std::span<const InterfaceMethod> methods;

    /// Returns null if the interface lacks `selector`.
    [[nodiscard]] const InterfaceMethod* find(std::string_view selector) const noexcept {
        for (const InterfaceMethod& method : methods)
            if (method.selector == selector) return &method;
        return nullptr;
    }
};

/// The reply to one message: a result, or the reason why the call could not be made.
struct CallResult {
    Value result;
    std::string callError;

    static CallResult refused(std::string why) { return CallResult{Value(), std::move(why)}; }
};

/// Implements an interface. A connection calls it on its own thread, one message at a time, only
/// with selectors of the exported interface. Several connections may call it at once.
class ExportedObject {
  public:
    virtual ~ExportedObject() = default;
    /// `params` are unchecked: the object refuses a wrong number or type. The result of a method
    /// without a reply is ignored.
    virtual CallResult handleMessage(Connection& connection, std::string_view selector,
                                     Array params) = 0;
};

class ConnectionState;
class UserQuotas;

/// Called with the error of each message that failed.
using ConnectionErrorHandler = std::function<void(ErrorRef)>;
using CallOutcome = Result<Value, ErrorRef>;
/// Called exactly once.
using CallReply = std::function<void(CallOutcome outcome)>;

/// Sends messages to the other side of a connection. Cheap to copy; keeps the connection alive.
/// Thread-safe; messages of one thread are sent in order.
class RemoteObjectProxy {
  public:
    RemoteObjectProxy(std::shared_ptr<Connection> connection, ConnectionErrorHandler onError);

    /// Sends a notification; returns once the kernel has it. Calls the error handler on failure.
    void notify(std::string_view selector, const Array& params) const;
    /// The same, but may keep the notification until the next message or `flush`, to send several
    /// at once. A failure may be that of an earlier one.
    void notifyLater(std::string_view selector, const Array& params) const;
    /// Sends what was kept.
    void flush() const;
    /// Sends a request and waits for its reply. On failure (connection ended, call refused) also
    /// calls the error handler.
    CallOutcome call(std::string_view selector, const Array& params) const;
    /// Same without waiting. `reply` runs on the connection's thread, which only a resumed
    /// connection has; on the calling thread if sending fails.
    void callWithReply(std::string_view selector, const Array& params, CallReply reply) const;

  private:
    std::shared_ptr<Connection> _connection;
    ConnectionErrorHandler _onError;
};

/// Set it up (exported interface, handlers), then resume it. A resumed connection handles its
/// messages one by one on its own thread. A connection used only for `call` and `notify` need not
/// be resumed and has no thread. Thread-safe. Destroying the last reference, proxies included,
/// invalidates it.
class Connection : public std::enable_shared_from_this<Connection> {
  public:
    /// Connects to a service by the path of its socket. Fails with Cocoa error 4099, with the POSIX
    /// error underneath.
    [[nodiscard]] static Result<std::shared_ptr<Connection>, ErrorRef> connectionToServiceAtPath(
        std::string_view path);
    /// Connects to the listener behind an endpoint. Never returns null: if the listener is gone or
    /// the descriptor is not an endpoint's, the first message fails with Cocoa error 4099.
    static std::shared_ptr<Connection> connectionToEndpoint(const EndpointRef& endpoint);
    /// Takes over a connected stream socket. `quotas` may be null (no limits). Returns null if the
    /// user's connection quota is used up.
    static std::shared_ptr<Connection> adoptSocket(UniqueFd socket,
                                                   std::shared_ptr<UserQuotas> quotas);

    explicit Connection(std::shared_ptr<ConnectionState> state);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Sets the methods that the other side may call. Call before `resume`. Shares ownership of
    /// `object`.
    void setExportedInterface(const Interface& interface, std::shared_ptr<ExportedObject> object);
    /// `handler` is called once, when the connection has ended for any reason: on the connection's
    /// thread, or, while it has none, on the thread that ends it. It may run after the last
    /// reference is gone, so it must own what it uses.
    void setInvalidationHandler(std::function<void()> handler);
    /// Drops the connection if a send makes no progress for this long. Default: no limit.
    void setSendTimeout(std::chrono::milliseconds timeout);

    void resume();
    /// Stops handling messages; new ones wait in the socket until `resume`.
    void suspend();
    /// Ends the connection; pending calls fail with Cocoa error 4099. The connection's own handlers
    /// may call it. Idempotent.
    void invalidate();
    /// Ends the sending direction: the other side reads end of file after what was sent. Replies
    /// still arrive.
    void shutDownSending();

    [[nodiscard]] RemoteObjectProxy remoteObjectProxy();
    [[nodiscard]] RemoteObjectProxy remoteObjectProxyWithErrorHandler(
        ConnectionErrorHandler handler);

    /// The peer's identity, which the kernel recorded when the connection was made; unset for a
    /// connection to an endpoint.
    [[nodiscard]] const PeerIdentity& peer() const noexcept;

    /// The quota account of the peer's user at the listener; null without limits.
    [[nodiscard]] const std::shared_ptr<UserQuotas>& quotas() const noexcept;

    /// The connection whose message this thread handles, or null.
    static Connection* current() noexcept;

    /// What the connection shares with its thread. For this directory only.
    [[nodiscard]] ConnectionState& state() const noexcept { return *_state; }

  private:
    std::shared_ptr<ConnectionState> _state;
};

}  // namespace corvalen
