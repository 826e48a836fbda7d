// SPDX-License-Identifier: MIT
#include "xpc/message_stream.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "xpc/limits.hpp"
#include "xpc/socket_io.hpp"

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

namespace {

// poll(2) reports a socket writable only if most of its buffer is free; a send may succeed earlier.
constexpr std::chrono::milliseconds kRetryInterval{500};
/// Bytes of messages that are kept to be sent together.
constexpr std::size_t kMostKept = std::size_t{60} * 1024;

/// Closes a file that is no endpoint; the message keeps a descriptor of nothing in its place.
/// While it was in the table, threads and processes could copy it, and each copy's close(2) of a
/// file on a FUSE mount waits for the answer to FLUSH. Here only the sender's connection waits.
void closeUnlessEndpoint(UniqueFd& received) noexcept {
    if (isHalfOfSocketPair(received, SOCK_SEQPACKET)) return;
    const UniqueFd nothing(::open("/dev/null", O_PATH | O_CLOEXEC));
    if (::dup3(nothing.get(), received.get(), O_CLOEXEC) < 0) received.reset();
}

}  // namespace

MessageStream::MessageStream(UniqueFd socket, std::shared_ptr<UserQuotas> quotas,
                             std::chrono::milliseconds arrivalTimeout)
    : _socket(std::move(socket)),
      _isService(quotas != nullptr),
      _arrivalTimeout(arrivalTimeout),
      _outgoingCharge(quotas, Resource::decodedBytes),
      _assembler(std::move(quotas)) {}

MessageStream::MessageStream(UniqueFd socket, EndpointRef endpoint, UniqueFd offered,
                             std::chrono::milliseconds arrivalTimeout)
    : _socket(std::move(socket)), _arrivalTimeout(arrivalTimeout), _assembler(nullptr) {
    const Result<> offer = offerConnection(endpoint, offered);
    if (failedWith(offer, EAGAIN)) {
        _endpoint = std::move(endpoint);
        _offeredHalf = std::move(offered);
    } else if (!offer) {
        // Closing the offered half does not end the connection while another thread has a copy of
        // the descriptor table (see closeElsewhere).
        shutDown();
    }
}

void MessageStream::setSendTimeout(std::optional<std::chrono::milliseconds> timeout) {
    const std::lock_guard lock(_sendMutex);
    _sendTimeout = timeout;
}

bool MessageStream::read(Message& message) {
    std::optional<Clock::time_point> deadline;
    for (;;) {
        const MessageAssembler::Status status = _assembler.next(message);
        if (status == MessageAssembler::Status::complete) return true;
        if (status == MessageAssembler::Status::malformed) return false;
        if (!_assembler.isWithinMessage()) {
            if (_activity.load(std::memory_order_relaxed) != Activity::silent)
                _activity.store(Activity::idle, std::memory_order_relaxed);
        } else if (!deadline) {
            deadline = Clock::now() + _arrivalTimeout;
        }
        if (!receiveMore(deadline)) return false;
    }
}

bool MessageStream::receiveMore(std::optional<Clock::time_point> deadline) {
    const std::span<char> buffer = _assembler.readBuffer();
    if (buffer.empty()) return false;
    std::vector<UniqueFd> descriptors;
    Result<Received> received;
    do {
        if (deadline && Clock::now() >= *deadline) return false;
        // Between messages a blocking recvmsg(2) both waits and reads. The kernel also wakes it
        // when the other side reads what was sent, which lowers latency on an idle machine.
        received = receive(_socket, buffer, descriptors, deadline ? Waiting::no : Waiting::yes);
    } while (failedWith(received, EAGAIN) && waitFor(_socket, POLLIN, deadline));
    if (!received || received->size == 0) return false;
    _activity.store(Activity::busy, std::memory_order_relaxed);
    if (_isService) std::for_each(descriptors.begin(), descriptors.end(), closeUnlessEndpoint);
    return !received->descriptorsLost && _assembler.addRead(received->size, std::move(descriptors));
}

Result<void, SendError> MessageStream::flush() {
    const std::lock_guard lock(_sendMutex);
    return sendKept();
}

/// Sends the kept messages by themselves: descriptors must come with their own message's first
/// byte.
Result<void, SendError> MessageStream::sendEncoded() {
    if (Result<void, SendError> sent = sendKept(); !sent) return sent;
    return sendBytes(_outgoing.bytes, _outgoing.descriptors);
}

Result<void, SendError> MessageStream::keepEncoded() {
    if (_kept.size() + _outgoing.bytes.size() > kMostKept) return sendEncoded();
    if (_kept.empty()) _kept.reserve(kMostKept);
    _kept.append(_outgoing.bytes);
    return {};
}

Result<void, SendError> MessageStream::sendKept() {
    Result<void, SendError> sent;
    if (_kept.empty()) return sent;
    sent = sendBytes(_kept, {});
    _kept = std::string();
    return sent;
}

Result<void, SendError> MessageStream::sendBytes(std::string_view bytes,
                                                 std::span<const Descriptor> descriptors) {
    if (!_socket) return failure(SendError{SendStatus::unreachable, EPIPE});
    if (const Result<> offer = offerHalf(); !offer)
        return failure(SendError{SendStatus::broken, offer.error().number});
    std::string_view left = bytes;
    std::optional<Clock::time_point> lastProgress;
    while (!left.empty()) {
        const Result<std::size_t> sent = sendSome(_socket, left, descriptors);
        if (sent) {
            left.remove_prefix(*sent);
            descriptors = {};
            lastProgress.reset();
            continue;
        }
        if (!failedWith(sent, EAGAIN)) {
            const bool nothingSent = left.size() == bytes.size();
            return failure(SendError{nothingSent ? SendStatus::unreachable : SendStatus::broken,
                                     sent.error().number});
        }
        if (!lastProgress) lastProgress = Clock::now();
        if (!waitForSpace(_socket, *lastProgress))
            return failure(SendError{SendStatus::broken, ETIMEDOUT});
    }
    return {};
}

Result<void, SendError> MessageStream::refused() noexcept {
    return failure(SendError{SendStatus::refused, EMSGSIZE});
}

void MessageStream::finishOpening() {
    const std::lock_guard lock(_sendMutex);
    (void)offerHalf();
}

/// Waits for space in the listener's queue, with the timeout of a send.
Result<> MessageStream::offerHalf() {
    if (!_offeredHalf) return {};
    const Clock::time_point start = Clock::now();
    for (;;) {
        Result<> offer = offerConnection(_endpoint, _offeredHalf);
        if (failedWith(offer, EAGAIN)) {
            // A connection that was shut down meanwhile needs no opening.
            const bool ended = waitFor(_socket, 0, Clock::now());
            if (!ended && waitForSpace(*_endpoint.descriptor, start)) continue;
            offer = failure(ended ? EPIPE : ETIMEDOUT);
        }
        _offeredHalf.reset();
        _endpoint = EndpointRef();
        return offer;
    }
}

/// Returns false once the send timeout has passed.
bool MessageStream::waitForSpace(Descriptor socket, Clock::time_point lastProgress) const {
    const Clock::time_point retry = Clock::now() + kRetryInterval;
    if (!_sendTimeout) {
        (void)waitFor(socket, POLLOUT, retry);
        return true;
    }
    const Clock::time_point end = lastProgress + *_sendTimeout;
    if (Clock::now() >= end) return false;
    (void)waitFor(socket, POLLOUT, std::min(retry, end));
    return true;
}

bool MessageStream::chargeLargeBuffer() noexcept {
    const std::size_t capacity = _outgoing.bytes.capacity();
    return capacity <= wire::kBufferPerConnection || _outgoingCharge.setAmount(capacity);
}

void MessageStream::freeLargeBuffer() noexcept {
    if (_outgoing.bytes.capacity() <= wire::kBufferPerConnection) return;
    _outgoing.bytes = std::string();
    (void)_outgoingCharge.setAmount(0);
}

void MessageStream::shutDown() noexcept {
    (void)::shutdown(_socket.get(), SHUT_RDWR);
}

bool MessageStream::isBusy() noexcept {
    const Activity activity = _activity.load(std::memory_order_relaxed);
    if (activity == Activity::busy) return true;
    if (activity == Activity::silent && Clock::now() - _createdAt < wire::kFirstMessageTime)
        return true;
    const std::lock_guard lock(_socketMutex);
    int unread = 0;
    return _socket && ::ioctl(_socket.get(), FIONREAD, &unread) == 0 && unread > 0;
}

UniqueFd MessageStream::takeSocket() noexcept {
    _assembler.discard();
    const std::lock_guard sending(_sendMutex);
    const std::lock_guard lock(_socketMutex);
    _activity.store(Activity::idle, std::memory_order_relaxed);
    return std::move(_socket);
}

void MessageStream::shutDownSending() noexcept {
    const std::lock_guard lock(_socketMutex);
    (void)::shutdown(_socket.get(), SHUT_WR);
}

}  // namespace corvalen
