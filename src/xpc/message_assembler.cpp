// SPDX-License-Identifier: MIT
#include "xpc/message_assembler.hpp"

#include <algorithm>
#include <cstring>
#include <utility>

#include "xpc/wire_limits.hpp"

namespace corvalen {

namespace {

constexpr std::size_t kInitialCapacity = std::size_t{16} * 1024;
constexpr std::size_t kSmallestRead = std::size_t{4} * 1024;
// Also bounds the bytes held beyond the current message.
constexpr std::size_t kLargestRead = wire::kBufferPerConnection;
// A message that exceeds its limit is refused, so no larger buffer is needed.
constexpr std::size_t kLargestCapacity = wire::kMaximumMessageSize + kLargestRead;

}  // namespace

MessageAssembler::MessageAssembler(std::shared_ptr<UserQuotas> quotas)
    : _quotas(std::move(quotas)), _unfinished(_quotas, Resource::unfinishedBytes) {}

std::span<char> MessageAssembler::readBuffer() {
    if (_capacity - _end < kSmallestRead && !grow()) return {};
    return {_buffer.get() + _end, std::min(_capacity - _end, kLargestRead)};
}

/// Charges only the capacity above kBufferPerConnection.
bool MessageAssembler::grow() {
    const std::size_t held = _end - _begin;
    std::size_t capacity = std::max(_capacity, kInitialCapacity);
    while (capacity - held < kSmallestRead)
        capacity = std::min(capacity * 2, std::max(kLargestCapacity, held + kSmallestRead));
    if (capacity > wire::kBufferPerConnection &&
        !_unfinished.setAmount(capacity - wire::kBufferPerConnection)) {
        return false;
    }
    moveToFront(capacity);
    return true;
}

void MessageAssembler::moveToFront(std::size_t capacity) {
    const std::size_t held = _end - _begin;
    if (capacity == _capacity) {
        std::memmove(_buffer.get(), _buffer.get() + _begin, held);
    } else {
        auto buffer = std::make_unique_for_overwrite<char[]>(capacity);
        if (held > 0) std::memcpy(buffer.get(), _buffer.get() + _begin, held);
        _buffer = std::move(buffer);
        _capacity = capacity;
    }
    _origin += _begin;
    _scanned -= _begin;
    _end = held;
    _begin = 0;
}

bool MessageAssembler::addRead(std::size_t size, std::vector<UniqueFd> descriptors) {
    const std::uint64_t begin = position(_end);
    _end += size;
    if (descriptors.size() > wire::kMaximumEndpoints) return false;
    if (!descriptors.empty()) {
        _received.push_back({begin, position(_end), std::move(descriptors)});
    }
    return true;
}

MessageAssembler::Status MessageAssembler::next(Message& message) {
    std::size_t used = 0;
    const Status status = _scanner.scan({_buffer.get() + _scanned, _end - _scanned}, &used);
    _scanned += used;
    if (status == Status::malformed) return status;
    if (status == Status::incomplete) {
        closeUnclaimable();
        return status;
    }
    if (!decode(message)) return Status::malformed;
    consume();
    return status;
}

bool MessageAssembler::decode(Message& message) {
    QuotaCharge charge(_quotas, Resource::decodedBytes);
    if (!charge.setAmount(_scanner.decodedSize())) return false;
    std::vector<UniqueFd> descriptors;
    if (_scanner.endpointCount() > 0) descriptors = claimDescriptors();
    if (!decodeMessage({_buffer.get() + _begin, _scanned - _begin}, descriptors, message))
        return false;
    message.decodedCharge = std::move(charge);
    return true;
}

/// Takes the descriptors of the first read in which the current message begins.
std::vector<UniqueFd> MessageAssembler::claimDescriptors() {
    const std::uint64_t start = position(_begin);
    const auto read = std::find_if(_received.begin(), _received.end(), [start](const auto& each) {
        return each.begin <= start && start < each.end;
    });
    if (read == _received.end()) return {};
    std::vector<UniqueFd> descriptors = std::move(read->descriptors);
    _received.erase(read);
    return descriptors;
}

/// Closes the descriptors of reads in which neither the current message nor a later one can begin.
void MessageAssembler::closeUnclaimable() {
    if (_received.empty()) return;
    const std::uint64_t start = position(_begin);
    std::erase_if(_received, [&](const ReceivedDescriptors& read) {
        const bool withinThisMessage = start < read.begin && read.end <= position(_scanned);
        return read.end <= start || withinThisMessage;
    });
}

void MessageAssembler::consume() {
    _begin = _scanned;
    _scanner.restart();
    if (_begin == _end) {
        _origin += _begin;
        _begin = _scanned = _end = 0;
    }
    if (_capacity > wire::kBufferPerConnection) freeLargeBuffer();
    closeUnclaimable();
}

/// Moves the remaining bytes, which came with one read, to a buffer of usual size.
void MessageAssembler::freeLargeBuffer() {
    if (_begin == _end) {
        _buffer.reset();
        _capacity = 0;
    } else {
        moveToFront(std::max(kInitialCapacity, _end - _begin));
    }
    (void)_unfinished.setAmount(0);
}

void MessageAssembler::discard() noexcept {
    _received.clear();
    _buffer.reset();
    _capacity = _begin = _scanned = _end = 0;
    (void)_unfinished.setAmount(0);
}

}  // namespace corvalen
