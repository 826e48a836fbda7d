// SPDX-License-Identifier: MIT
// Assembles messages from a stream of bytes and descriptors.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <vector>

#include "xpc/message.hpp"
#include "xpc/message_scanner.hpp"

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

}  // namespace corvalen
