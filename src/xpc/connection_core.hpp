// SPDX-License-Identifier: MIT
// The working part of a connection: its calls, its thread, and its end.
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
    /// None means that a send may wait for ever.
    std::optional<std::chrono::milliseconds> sendTimeout = std::nullopt;
};

/// Shared by the connection's handle and its thread; the thread outlives the handle by what it has
/// at hand. Any thread may call.
///
/// Whoever waits for something reads the socket when nobody else does: the connection's thread
/// between two messages, or a thread inside `call`. A message that is not an answer to a waiting
/// call is left to the connection's thread. So a call on a connection without a thread costs no
/// change of threads, and one made within a handler does not wait for itself.
///
/// What came from the peer is closed and freed by the connection's thread where it has one, which
/// may wait long: whoever else held the channel last only frees memory.
///
/// Nothing here is global: a thread that still runs while the process exits touches only memory
/// that it owns a share of.
class Channel : public std::enable_shared_from_this<Channel> {
  public:
    Channel(std::unique_ptr<MessageStream> stream, PeerIdentity peer, QuotaCharge place,
            std::shared_ptr<UserQuotas> quotas);

    void setCore(const std::shared_ptr<ConnectionCore>& core);
    void setExported(const Interface& interface, std::shared_ptr<ExportedObject> object);
    void setInvalidationHandler(std::function<void()> handler);
    void setSendTimeout(std::optional<std::chrono::milliseconds> timeout);
    /// Keeps the connection alive until it ends, and watches for its end once it is resumed.
    void holdUntilEnded(std::shared_ptr<Connection> connection);
    [[nodiscard]] const PeerIdentity& peer() const noexcept { return _peer; }
    [[nodiscard]] const std::shared_ptr<UserQuotas>& quotas() const noexcept { return _quotas; }
    /// Whether a message is being read, handled or answered, waits to be read, or is the first one
    /// and may be on the way.
    [[nodiscard]] bool isBusy() const noexcept { return _stream->isBusy(); }
    /// Whether this is the working part of that connection (may be null).
    [[nodiscard]] bool isOf(const Connection* connection) const;
    /// The socket of a connection that has ended without ever having had a thread, which would
    /// have closed it; empty otherwise. For the thread of a listener, which must not.
    [[nodiscard]] UniqueFd takeUnservedSocket() noexcept;

    void resume();
    void suspend();
    void invalidate() noexcept;
    void shutDownSending() noexcept { _stream->shutDownSending(); }

    /// Null when the message has been handed to the kernel.
    ErrorRef notify(std::string_view selector, const Array& params);
    Value call(std::string_view selector, const Array& params, ErrorRef& error);
    void callWithReply(std::string_view selector, const Array& params, CallReply reply);

  private:
    /// An answer as its caller gets it.
    struct Answer {
        Value result;
        ErrorRef error;
    };
    /// A call that waits in its own thread: the answer goes to the waiting thread's frame.
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
    /// The connection's place among those of its user.
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
    /// What the connection's thread has still to do.
    std::deque<Work> _work;
    bool _accepted = false;
    bool _resumed = false;
    bool _threadStarted = false;
    /// Somebody is in `MessageStream::read`.
    bool _reading = false;
    /// No message will come any more.
    bool _ended = false;
    /// Ended by this side: what has come is dropped.
    bool _invalidated = false;
    bool _finished = false;
};

/// The handle that connections and proxies share; the last one to go invalidates.
class ConnectionCore {
  public:
    explicit ConnectionCore(std::shared_ptr<Channel> channel) noexcept
        : _channel(std::move(channel)) {}
    ~ConnectionCore() { _channel->invalidate(); }
    ConnectionCore(const ConnectionCore&) = delete;
    ConnectionCore& operator=(const ConnectionCore&) = delete;

    [[nodiscard]] Channel& channel() const noexcept { return *_channel; }
    /// The object that callers know this connection by.
    std::weak_ptr<Connection> connection;

  private:
    std::shared_ptr<Channel> _channel;
};

/// A connection and its working part.
struct OpenedConnection {
    std::shared_ptr<Connection> connection;
    std::shared_ptr<Channel> channel;
};

/// Takes over a connected stream socket. Empty, with the socket left to the caller, when `quotas`
/// have no place for it.
[[nodiscard]] OpenedConnection openConnection(UniqueFd&& socket, PeerIdentity peer,
                                              std::shared_ptr<UserQuotas> quotas,
                                              const ConnectionOptions& options = {});

/// Cocoa 4099, with the POSIX error underneath when there is one.
[[nodiscard]] ErrorRef makeConnectionInvalidError(int errnoValue = 0);

/// The connection whose message the calling thread handles; null between messages.
extern thread_local Connection* currentConnection;

}  // namespace corvalen
