// SPDX-License-Identifier: MIT
// The internals of a connection: its life, its thread and its calls.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <variant>

#include "xpc/connection.hpp"
#include "xpc/limits.hpp"
#include "xpc/message_stream.hpp"

namespace corvalen {

struct ConnectionOptions {
    std::chrono::milliseconds arrivalTimeout = wire::kArrivalTimeout;
    /// std::nullopt: a send may wait for ever.
    std::optional<std::chrono::milliseconds> sendTimeout = std::nullopt;
};

/// Shared by the connection's handle and its thread. The thread may outlive the handle until its
/// current message is done. Thread-safe.
///
/// One waiting thread at a time reads the socket: the connection's thread between two messages, or
/// a thread inside `call`. Messages other than replies to waiting calls go to the connection's
/// thread. So a call on a connection without a thread needs no thread switch, and a call from a
/// handler does not wait for itself.
///
/// The connection's thread, if there is one, closes and frees what came from the peer, which may
/// block. Any other last owner of the state only frees memory.
///
/// Uses no global objects: a thread that still runs while the process exits touches only memory
/// that it shares ownership of.
class ConnectionState : public std::enable_shared_from_this<ConnectionState> {
  public:
    ConnectionState(std::unique_ptr<MessageStream> stream, PeerIdentity peer,
                    QuotaCharge connectionCharge, std::shared_ptr<UserQuotas> quotas);

    void setHandle(std::weak_ptr<Connection> handle);
    void setExported(const Interface& interface, std::shared_ptr<ExportedObject> object);
    void setInvalidationHandler(std::function<void()> handler);
    void setSendTimeout(std::optional<std::chrono::milliseconds> timeout);
    /// Keeps the connection alive until it ends. Once resumed, its thread watches for the end.
    void holdUntilEnded(std::shared_ptr<Connection> handle);
    [[nodiscard]] const PeerIdentity& peer() const noexcept { return _peer; }
    [[nodiscard]] const std::shared_ptr<UserQuotas>& quotas() const noexcept { return _quotas; }
    /// Returns true while a message is read, handled or replied to, while bytes are unread, and for
    /// kFirstMessageTime if nothing has arrived.
    [[nodiscard]] bool isBusy() const noexcept { return _stream->isBusy(); }
    /// Takes the socket of a connection that ended without ever having a thread to close it; empty
    /// otherwise. For a listener's thread, which must not close it.
    [[nodiscard]] UniqueFd takeUnservedSocket() noexcept;

    void resume();
    void suspend();
    void invalidate() noexcept;
    void shutDownSending() noexcept { _stream->shutDownSending(); }

    /// Returns null once the kernel has the message.
    ErrorRef notify(std::string_view selector, const Array& params);
    /// Returns null once the stream has the message (MessageStream::sendLater).
    ErrorRef notifyLater(std::string_view selector, const Array& params);
    ErrorRef flush();
    CallOutcome call(std::string_view selector, const Array& params);
    void callWithReply(std::string_view selector, const Array& params, CallReply callback);

  private:
    /// The life of a connection; `advanceTo` alone changes it, and only forward.
    ///
    /// - Only an open connection adds calls and starts its thread, which then exists until after
    ///   `finished`.
    /// - From `ended` on the socket is shut down, and no call blocks its thread any more.
    /// - Exactly one thread finishes the connection: its own or, without one, a thread that ended
    ///   it. `finish` leaves no callback, exported object or handle behind.
    enum class Life : std::uint8_t {
        open,
        /// No more messages arrive: the peer is gone, a send broke, or a limit was exceeded. The
        /// connection's thread still handles the queued messages.
        ended,
        /// Ended by this side: queued messages are dropped.
        invalidated,
        /// The callbacks of all pending calls and the invalidation handler have begun to run.
        finished,
    };

    /// A call that blocks its thread; lives on that thread's stack.
    struct BlockedCall {
        std::optional<CallOutcome> outcome;
    };
    using PendingCall = std::variant<BlockedCall*, CallReply>;
    struct Delivery {
        CallReply callback;
        CallOutcome outcome;
    };
    using Work = std::variant<Message, Delivery>;
    using Lock = std::unique_lock<std::mutex>;

    // Life and thread: connection_state.cpp. A function that takes a `Lock` by value unlocks.
    void advanceTo(Life life) noexcept;
    void failBlockedCalls() noexcept;
    void end(Lock lock, Life life) noexcept;
    void finish(Lock lock) noexcept;
    [[nodiscard]] bool needsThread() const;
    void startThreadIfNeeded(Lock& lock);
    void run();
    void runOnce(Lock& lock);
    bool readOne(Lock& lock, Message& message);
    void dispatch(Message&& message);
    void deliverReply(Message&& message);

    // Messages in and out: connection.cpp.
    void handle(Lock& lock, Work work);
    void handle(Lock& lock, Message message);
    void handle(Lock& lock, Delivery delivery);
    template <class Handler>
    void withoutLock(Lock& lock, const Handler& handler);
    void handleMessage(Message message, const InterfaceMethod* method, ExportedObject* object);
    void sendReply(std::uint32_t identifier, const CallResult& result);
    std::optional<std::uint32_t> addCall(PendingCall call);
    ErrorRef sendRequest(std::uint32_t identifier, std::string_view selector, const Array& params);
    template <class Encode>
    ErrorRef send(const Encode& encode);
    ErrorRef errorOf(const Result<void, SendError>& sent);

    std::unique_ptr<MessageStream> _stream;
    PeerIdentity _peer;
    /// The user's charge for this connection.
    QuotaCharge _connectionCharge;
    /// Of the peer's user; null without limits.
    std::shared_ptr<UserQuotas> _quotas;
    ErrorRef _invalidError;

    std::mutex _mutex;
    std::condition_variable _changed;
    std::weak_ptr<Connection> _handle;
    Interface _interface;
    std::shared_ptr<ExportedObject> _object;
    std::function<void()> _invalidationHandler;
    /// The handle of a connection that a listener accepted, until it is finished.
    std::shared_ptr<Connection> _held;
    std::unordered_map<std::uint32_t, PendingCall> _calls;
    std::uint32_t _nextIdentifier = 0;
    /// Queue of the connection's thread.
    std::deque<Work> _work;
    Life _life = Life::open;
    /// The connection's thread may read and handle messages. Independent of `_life`: a suspended
    /// connection that ends keeps its queue until it is resumed.
    bool _isResumed = false;
    bool _hasThread = false;
    /// A thread, of this connection or inside `call`, is in `MessageStream::read`.
    bool _isReading = false;
};

/// Takes over a connected stream socket. If the user's connection quota is used up, returns null
/// and leaves the socket to the caller.
[[nodiscard]] std::shared_ptr<Connection> openConnection(UniqueFd&& socket, PeerIdentity peer,
                                                         std::shared_ptr<UserQuotas> quotas,
                                                         const ConnectionOptions& options = {});

/// Cocoa error 4099; a non-zero `errnoValue` becomes its underlying POSIX error.
[[nodiscard]] ErrorRef makeConnectionInvalidError(int errnoValue = 0);

}  // namespace corvalen
