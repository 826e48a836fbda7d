// SPDX-License-Identifier: MIT
// Messages over one connected stream socket, assembled from its bytes and descriptors.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "corvalen/error.hpp"
#include "foundation/borrowed_descriptor.hpp"
#include "foundation/result.hpp"
#include "xpc/limits.hpp"
#include "xpc/message.hpp"

namespace corvalen {

/// Holds received bytes that are not yet a message. Not synchronised.
///
/// A read ends after bytes that carried descriptors, but may begin with older bytes that carried
/// none (unix(7)). So descriptors belong to the first message with endpoints that begins within
/// their read. Descriptors that no message can claim any more are closed.
class MessageAssembler {
  public:
    using Status = MessageScanner::Status;

    /// `quotas` may be null (no limits).
    explicit MessageAssembler(std::shared_ptr<UserQuotas> quotas);

    /// Returns the buffer for the next read; empty if the user's quota is used up. Throws
    /// std::bad_alloc.
    [[nodiscard]] std::span<char> readBuffer();
    /// Adds a read: the first `size` bytes of `readBuffer()`, and descriptors. Returns false if
    /// there are more descriptors than a message may have.
    [[nodiscard]] bool addRead(std::size_t size, std::vector<UniqueFd> descriptors);
    /// Takes the next message out. Returns `malformed` also if the user's quota does not allow
    /// decoding it; only `discard` may follow.
    Status next(Message& message);
    /// Returns true if part of a message has arrived.
    [[nodiscard]] bool isWithinMessage() const noexcept { return _begin != _end; }
    /// Frees the buffer and closes the descriptors, for good.
    void discard() noexcept;

  private:
    /// Descriptors, and the stream positions of the read that brought them.
    struct ReceivedDescriptors {
        std::uint64_t begin = 0;
        std::uint64_t end = 0;
        std::vector<UniqueFd> descriptors;
    };

    [[nodiscard]] std::uint64_t position(std::size_t offset) const noexcept {
        return _origin + offset;
    }
    [[nodiscard]] std::vector<UniqueFd> claimDescriptors();
    void closeUnclaimable();
    bool decode(Message& message);
    void consume();
    void freeLargeBuffer();
    bool grow();
    void moveToFront(std::size_t capacity);

    std::shared_ptr<UserQuotas> _quotas;
    QuotaCharge _unfinished;
    MessageScanner _scanner;
    std::unique_ptr<char[]> _buffer;
    std::size_t _capacity = 0;
    /// Offsets: [_begin, _end) is held, [_begin, _scanned) is scanned.
    std::size_t _begin = 0;
    std::size_t _scanned = 0;
    std::size_t _end = 0;
    /// The stream position of the buffer's first byte.
    std::uint64_t _origin = 0;
    std::deque<ReceivedDescriptors> _received;
};

/// Why a message was not sent.
enum class SendStatus : std::uint8_t {
    /// It exceeds a protocol limit or the user's quota; nothing was sent.
    refused,
    /// The other side is gone; its earlier messages may still be readable.
    unreachable,
    /// The connection is unusable: only part was sent, or the send timed out.
    broken,
};

struct SendError {
    SendStatus status;
    int number = 0;  // an errno
};

/// One thread may read while others send; sends are serialised.
class MessageStream {
  public:
    MessageStream(UniqueFd socket, std::shared_ptr<UserQuotas> quotas,
                  std::chrono::milliseconds arrivalTimeout);
    /// A connection through an endpoint. Sends `offered`, the other half, over it at once or, if
    /// the listener's queue is full, before the first message.
    MessageStream(UniqueFd socket, EndpointRef endpoint, UniqueFd offered,
                  std::chrono::milliseconds arrivalTimeout);

    /// Time without progress after which a send fails; std::nullopt means never. Any thread.
    void setSendTimeout(std::optional<std::chrono::milliseconds> timeout);

    /// Waits for the next message. Returns false if there will be none: the other side is gone,
    /// broke the protocol, exceeded a quota, or was too slow. Throws std::bad_alloc.
    bool read(Message& message);

    /// Encodes with `encode(EncodedMessage&)` into a reused buffer, and sends.
    template <class Encode>
    [[nodiscard]] Result<void, SendError> send(const Encode& encode) {
        const std::lock_guard lock(_sendMutex);
        const bool sendable = encode(_outgoing) && chargeLargeBuffer();
        const Result<void, SendError> sent = sendable ? sendEncoded() : refused();
        freeLargeBuffer();
        return sent;
    }
    /// The same for a message without endpoints, but may keep it until a later message is sent or
    /// `flush` is called: several messages in one system call cost less, the receiver too.
    template <class Encode>
    [[nodiscard]] Result<void, SendError> sendLater(const Encode& encode) {
        const std::lock_guard lock(_sendMutex);
        const bool sendable = encode(_outgoing) && chargeLargeBuffer();
        const Result<void, SendError> sent = sendable ? keepEncoded() : refused();
        freeLargeBuffer();
        return sent;
    }
    /// Sends what was kept.
    [[nodiscard]] Result<void, SendError> flush();

    /// Sends the half that did not fit in the listener's queue.
    void finishOpening();
    /// Ends both directions, and with them every wait in `read` and `send`. The other side can
    /// still read what was sent. Any thread.
    void shutDown() noexcept;
    /// Returns true from the first byte of a message until `read` is called again, while bytes are
    /// unread, and for kFirstMessageTime if nothing has arrived. Any thread; does not block.
    [[nodiscard]] bool isBusy() noexcept;
    /// Returns the socket and closes the descriptors of unread messages. Later sends fail. Requires
    /// that `shutDown` was called and that no thread is in `read`.
    [[nodiscard]] UniqueFd takeSocket() noexcept;
    /// Ends the sending direction: the other side reads end of file after what was sent, and can
    /// still reply. Any thread.
    void shutDownSending() noexcept;

  private:
    using Clock = std::chrono::steady_clock;

    bool receiveMore(std::optional<Clock::time_point> deadline);
    Result<void, SendError> sendEncoded();
    Result<void, SendError> keepEncoded();
    Result<void, SendError> sendKept();
    Result<void, SendError> sendBytes(std::string_view bytes,
                                      std::span<const Descriptor> descriptors);
    static Result<void, SendError> refused() noexcept;
    Result<> offerHalf();
    bool waitForSpace(Descriptor socket, Clock::time_point lastProgress) const;
    [[nodiscard]] bool chargeLargeBuffer() noexcept;
    void freeLargeBuffer() noexcept;

    /// Changes only under both mutexes.
    UniqueFd _socket;
    std::mutex _socketMutex;
    enum class Activity : std::uint8_t { silent, idle, busy };
    std::atomic<Activity> _activity{Activity::silent};
    const Clock::time_point _createdAt = Clock::now();
    /// The other side is a client of the service: another user.
    const bool _isService = false;
    std::chrono::milliseconds _arrivalTimeout;
    QuotaCharge _outgoingCharge;
    MessageAssembler _assembler;

    std::mutex _sendMutex;
    EncodedMessage _outgoing;
    /// Encoded messages to send before the next one.
    std::string _kept;
    std::optional<std::chrono::milliseconds> _sendTimeout;
    EndpointRef _endpoint;
    UniqueFd _offeredHalf;
};

}  // namespace corvalen
