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

/// What became of a message that was to be sent.
enum class SendStatus : std::uint8_t {
    sent,
    /// It passes a limit of the protocol or of the user's quotas; nothing was sent.
    refused,
    /// The other side is gone. What it sent before may still be there to be read.
    unreachable,
    /// The connection is of no more use: a part was sent, or there was no progress for too long.
    broken,
};

/// One thread may read while others send; senders take turns.
class MessageStream {
  public:
    MessageStream(UniqueFd socket, std::shared_ptr<UserQuotas> quotas,
                  std::chrono::milliseconds arrivalTimeout);
    /// The same for a connection through an endpoint: the other half, `offered`, goes over it at
    /// once or, when the listener's queue is full, before the first message.
    MessageStream(UniqueFd socket, EndpointRef endpoint, UniqueFd offered,
                  std::chrono::milliseconds arrivalTimeout);

    /// Time without progress after which a send is given up; none means never. Any thread.
    void setSendTimeout(std::optional<std::chrono::milliseconds> timeout);

    /// Waits for the next message. False when there will be none: the other side is gone, broke
    /// the protocol, or was too slow. Throws std::bad_alloc.
    bool read(Message& message);

    /// Encodes by `encode(EncodedMessage&)` into a buffer that is reused, and sends. With anything
    /// but `sent`, `*errnoValue` says why.
    template <class Encode>
    SendStatus send(const Encode& encode, int* errnoValue) {
        const std::lock_guard lock(_sendMutex);
        const bool sendable = encode(_outgoing) && chargeLargeBuffer();
        const SendStatus status = sendable ? sendEncoded(errnoValue) : refuse(errnoValue);
        dropLargeBuffer();
        return status;
    }

    /// Hands over a half that still waits for room in the listener's queue.
    void finishOpening();
    /// Ends both directions at once, and with them every wait in `read` and `send`. What the other
    /// side has not read yet it can still read. Any thread.
    void shutDown() noexcept;
    /// Whether a message is being read, or was read and the next call of `read` has not come yet,
    /// or bytes wait to be read, or nothing has come yet and the socket is new. Any thread; never
    /// waits.
    [[nodiscard]] bool isBusy() noexcept;
    /// Gives the socket up and closes what arrived with messages that nobody will read. Afterwards
    /// sends fail. Nobody may be in `read`, and `shutDown` has been called.
    [[nodiscard]] UniqueFd takeSocket() noexcept;
    /// Ends the sending direction: the other side reads to the end of what was sent, and can still
    /// answer. Any thread.
    void shutDownSending() noexcept;

  private:
    using Clock = std::chrono::steady_clock;

    bool receiveMore(std::optional<Clock::time_point> deadline);
    SendStatus sendEncoded(int* errnoValue);
    SendStatus refuse(int* errnoValue) noexcept;
    bool openNow(int* errnoValue);
    bool waitForRoom(int socket, Clock::time_point lastProgress) const;
    [[nodiscard]] bool chargeLargeBuffer() noexcept;
    void dropLargeBuffer() noexcept;

    /// Changes only under both mutexes.
    UniqueFd _socket;
    std::mutex _socketMutex;
    enum class Activity : std::uint8_t { silent, idle, busy };
    std::atomic<Activity> _activity{Activity::silent};
    const Clock::time_point _begin = Clock::now();
    std::chrono::milliseconds _arrivalTimeout;
    QuotaCharge _outgoingCharge;
    MessageAssembler _assembler;

    std::mutex _sendMutex;
    EncodedMessage _outgoing;
    std::optional<std::chrono::milliseconds> _sendTimeout;
    EndpointRef _endpoint;
    UniqueFd _offered;
};

}  // namespace corvalen
