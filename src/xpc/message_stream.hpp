// SPDX-License-Identifier: MIT
// Messages over one connected stream socket.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "corvalen/error.hpp"
#include "xpc/message.hpp"
#include "xpc/message_assembler.hpp"
#include "xpc/wire_limits.hpp"

namespace corvalen {

/// Result of sending a message.
enum class SendStatus : std::uint8_t {
    sent,
    /// It exceeds a protocol limit or the user's quota; nothing was sent.
    refused,
    /// The other side is gone; its earlier messages may still be readable.
    unreachable,
    /// The connection is unusable: only part was sent, or the send timed out.
    broken,
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

    /// Encodes with `encode(EncodedMessage&)` into a reused buffer, and sends. Sets `*errnoValue`
    /// unless it returns `sent`.
    template <class Encode>
    SendStatus send(const Encode& encode, int* errnoValue) {
        const std::lock_guard lock(_sendMutex);
        const bool sendable = encode(_outgoing) && chargeLargeBuffer();
        const SendStatus status = sendable ? sendEncoded(errnoValue) : refuse(errnoValue);
        freeLargeBuffer();
        return status;
    }

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
    SendStatus sendEncoded(int* errnoValue);
    SendStatus refuse(int* errnoValue) noexcept;
    bool offerHalf(int* errnoValue);
    bool waitForSpace(int socket, Clock::time_point lastProgress) const;
    [[nodiscard]] bool chargeLargeBuffer() noexcept;
    void freeLargeBuffer() noexcept;

    /// Changes only under both mutexes.
    UniqueFd _socket;
    std::mutex _socketMutex;
    enum class Activity : std::uint8_t { silent, idle, busy };
    std::atomic<Activity> _activity{Activity::silent};
    const Clock::time_point _createdAt = Clock::now();
    std::chrono::milliseconds _arrivalTimeout;
    QuotaCharge _outgoingCharge;
    MessageAssembler _assembler;

    std::mutex _sendMutex;
    EncodedMessage _outgoing;
    std::optional<std::chrono::milliseconds> _sendTimeout;
    EndpointRef _endpoint;
    UniqueFd _offeredHalf;
};

}  // namespace corvalen
