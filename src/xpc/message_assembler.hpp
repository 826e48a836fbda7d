// SPDX-License-Identifier: MIT
// Turns a stream of bytes and descriptors, in whatever pieces they come, into messages.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <vector>

#include "xpc/message.hpp"
#include "xpc/message_scanner.hpp"

namespace corvalen {

/// Holds what has arrived and is not yet a message. Not synchronised.
///
/// A read from the kernel ends behind the bytes that carried descriptors, but may begin with older
/// bytes that carried none. So descriptors belong to the first message with endpoints that begins
/// within their read; those that no message claims are closed as soon as that is certain.
class MessageAssembler {
  public:
    using Status = MessageScanner::Status;

    /// `quotas` may be null.
    explicit MessageAssembler(std::shared_ptr<UserQuotas> quotas);

    /// Room for the next piece, empty when the user's quotas do not allow for more. Throws
    /// std::bad_alloc.
    [[nodiscard]] std::span<char> room();
    /// The next piece is there: the first `size` bytes of `room`. False when it carries more
    /// descriptors than a message may have.
    [[nodiscard]] bool arrived(std::size_t size, std::vector<UniqueFd> descriptors);
    /// Takes the next message out. `malformed`, after which nothing more may be asked, also when
    /// the user's quotas do not allow to decode it.
    Status next(Message& message);
    /// Whether the beginning of a message is there.
    [[nodiscard]] bool isWithinMessage() const noexcept { return _begin != _end; }
    /// Drops everything, for good.
    void discard() noexcept;

  private:
    /// Descriptors and the read, by positions in the stream, that brought them.
    struct Batch {
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
    void giveLargeBufferBack();
    bool grow();
    void moveToFront(std::size_t capacity);

    std::shared_ptr<UserQuotas> _quotas;
    QuotaCharge _unfinished;
    MessageScanner _scanner;
    std::unique_ptr<char[]> _buffer;
    std::size_t _capacity = 0;
    /// The bytes held are [_begin, _end), those up to `_scanned` have been scanned.
    std::size_t _begin = 0;
    std::size_t _scanned = 0;
    std::size_t _end = 0;
    /// The stream position of the buffer's first byte.
    std::uint64_t _origin = 0;
    std::deque<Batch> _batches;
};

}  // namespace corvalen
