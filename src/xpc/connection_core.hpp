// SPDX-License-Identifier: MIT
// The internals of a connection: its calls, its thread, and its end.
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
#include "xpc/message_stream.hpp"
#include "xpc/user_quotas.hpp"
#include "xpc/wire_limits.hpp"

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
/// block. Any other last owner of the channel only frees memory.
///
/// Uses no global objects: a thread that still runs while the process exits touches only memory
/// that it shares ownership of.
class Channel : public std::enable_shared_from_this<Channel> {
  public:
    Channel(std::unique_ptr<MessageStream> stream, PeerIdentity peer, QuotaCharge place,
            std::shared_ptr<UserQuotas> quotas);

    void setCore(const std::shared_ptr<ConnectionCore>& core);
    void setExported(const Interface& interface, std::shared_ptr<ExportedObject> object);
    void setInvalidationHandler(std::function<void()> handler);
    void setSendTimeout(std::optional<std::chrono::milliseconds> timeout);
    /// Keeps the connection alive until it ends. Once resumed, its thread watches for the end.
    void holdUntilEnded(std::shared_ptr<Connection> connection);
    [[nodiscard]] const PeerIdentity& peer() const noexcept { return _peer; }
    [[nodiscard]] const std::shared_ptr<UserQuotas>& quotas() const noexcept { return _quotas; }
    /// Returns true while a message is read, handled or replied to, while bytes are unread, and for
    /// kFirstMessageTime if nothing has arrived.
    [[nodiscard]] bool isBusy() const noexcept { return _stream->isBusy(); }
    /// Returns true if `connection` (may be null) is this channel's handle.
    [[nodiscard]] bool isOf(const Connection* connection) const;
    /// Takes the socket of a connection that ended without ever having a thread to close it; empty
    /// otherwise. For a listener's thread, which must not close it.
    [[nodiscard]] UniqueFd takeUnservedSocket() noexcept;

    void resume();
    void suspend();
    void invalidate() noexcept;
    void shutDownSending() noexcept { _stream->shutDownSending(); }

    /// Returns null once the kernel has the message.
    ErrorRef notify(std::string_view selector, const Array& params);
    Value call(std::string_view selector, const Array& params, ErrorRef& error);
    void callWithReply(std::string_view selector, const Array& params, CallReply reply);

  private:
    /// A reply as its caller receives it.
    struct Answer {
        Value result;
        ErrorRef error;
    };
    /// A call that blocks its thread; lives on that thread's stack.
    struct Waiter {
        std::optional<Answer> answer;
    };
    using PendingCall = std::variant<Waiter*, CallReply>;
    struct Delivery {
        CallReply reply;
        Answer answer;
    };
    using Work = std::variant<Message, Delivery>;
    using Lock = std::unique_lock<std::mutex>;

    [[nodiscard]] bool needsThread() const;
    void startThreadIfNeeded(Lock& lock);
    void run();
    bool readOne(Lock& lock, Message& message);
    void dispatch(Message&& message);
    void answerCall(Message&& message);
    void end() noexcept;
    void finish(Lock& lock) noexcept;
    void endAfterFailedSend();

    void handle(Lock& lock, Work&& work);
    void handle(Lock& lock, Message&& message);
    template <class Handler>
    void withoutLock(Lock& lock, const Handler& handler);
    void handleMessage(Message&& message, const InterfaceMethod* method, ExportedObject* object);
    void answer(std::uint32_t identifier, const CallResult& result);

    std::optional<std::uint32_t> addCall(PendingCall call);
    ErrorRef sendRequest(std::uint32_t identifier, std::string_view selector, const Array& params);
    template <class Encode>
    ErrorRef send(const Encode& encode);
    static Answer answerFrom(Message&& message);

    std::unique_ptr<MessageStream> _stream;
    PeerIdentity _peer;
    /// The user's charge for this connection.
    QuotaCharge _place;
    /// Of the peer's user; null without limits.
    std::shared_ptr<UserQuotas> _quotas;
    ErrorRef _invalidError;

    std::mutex _mutex;
    std::condition_variable _changed;
    std::weak_ptr<ConnectionCore> _core;
    Interface _interface;
    std::shared_ptr<ExportedObject> _object;
    std::function<void()> _invalidationHandler;
    std::shared_ptr<Connection> _held;
    std::unordered_map<std::uint32_t, PendingCall> _calls;
    std::uint32_t _nextIdentifier = 0;
    /// Queue of the connection's thread.
    std::deque<Work> _work;
    bool _accepted = false;
    bool _resumed = false;
    bool _threadStarted = false;
    /// A thread is in `MessageStream::read`.
    bool _reading = false;
    /// No more messages will arrive.
    bool _ended = false;
    /// Ended by this side: received messages are dropped.
    bool _invalidated = false;
    bool _finished = false;
};

/// Shared by connections and proxies; the last owner invalidates the channel.
class ConnectionCore {
  public:
    explicit ConnectionCore(std::shared_ptr<Channel> channel) noexcept
        : _channel(std::move(channel)) {}
    ~ConnectionCore() { _channel->invalidate(); }
    ConnectionCore(const ConnectionCore&) = delete;
    ConnectionCore& operator=(const ConnectionCore&) = delete;

    [[nodiscard]] Channel& channel() const noexcept { return *_channel; }
    /// The public object of this connection.
    std::weak_ptr<Connection> connection;

  private:
    std::shared_ptr<Channel> _channel;
};

/// A connection and its internals.
struct OpenedConnection {
    std::shared_ptr<Connection> connection;
    std::shared_ptr<Channel> channel;
};

/// Takes over a connected stream socket. If the user's connection quota is used up, returns empty
/// pointers and leaves the socket to the caller.
[[nodiscard]] OpenedConnection openConnection(UniqueFd&& socket, PeerIdentity peer,
                                              std::shared_ptr<UserQuotas> quotas,
                                              const ConnectionOptions& options = {});

/// Cocoa error 4099; a non-zero `errnoValue` becomes its underlying POSIX error.
[[nodiscard]] ErrorRef makeConnectionInvalidError(int errnoValue = 0);

/// The connection whose message the calling thread handles; null between messages.
extern thread_local Connection* currentConnection;

}  // namespace corvalen
