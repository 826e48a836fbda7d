// SPDX-License-Identifier: MIT
#include "xpc/message_stream.hpp"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "xpc/endpoint.hpp"
#include "xpc/socket_io.hpp"

namespace corvalen {

namespace {

// poll(2) reports a socket writable only if most of its buffer is free; a send may succeed earlier.
constexpr std::chrono::milliseconds kRetryInterval{500};

}  // namespace

MessageStream::MessageStream(UniqueFd socket, std::shared_ptr<UserQuotas> quotas,
                             std::chrono::milliseconds arrivalTimeout)
    : _socket(std::move(socket)),
      _arrivalTimeout(arrivalTimeout),
      _outgoingCharge(quotas, Resource::decodedBytes),
      _assembler(std::move(quotas)) {}

MessageStream::MessageStream(UniqueFd socket, EndpointRef endpoint, UniqueFd offered,
                             std::chrono::milliseconds arrivalTimeout)
    : _socket(std::move(socket)), _arrivalTimeout(arrivalTimeout), _assembler(nullptr) {
    const int error = offerConnection(endpoint, offered.get());
    if (error == EAGAIN) {
        _endpoint = std::move(endpoint);
        _offeredHalf = std::move(offered);
    } else if (error != 0) {
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
    Received received;
    do {
        if (deadline && Clock::now() >= *deadline) return false;
        // Between messages a blocking recvmsg(2) both waits and reads. The kernel also wakes it
        // when the other side reads what was sent, which lowers latency on an idle machine.
        received =
            receive(_socket.get(), buffer, descriptors, deadline ? Waiting::no : Waiting::yes);
    } while (received.size < 0 && received.errnoValue == EAGAIN &&
             waitFor(_socket.get(), POLLIN, deadline));
    if (received.size > 0) _activity.store(Activity::busy, std::memory_order_relaxed);
    return received.size > 0 && !received.descriptorsLost &&
           _assembler.addRead(static_cast<std::size_t>(received.size), std::move(descriptors));
}

SendStatus MessageStream::sendEncoded(int* errnoValue) {
    if (!_socket) {
        *errnoValue = EPIPE;
        return SendStatus::unreachable;
    }
    if (!offerHalf(errnoValue)) return SendStatus::broken;
    std::string_view left = _outgoing.bytes;
    std::span<const int> descriptors = _outgoing.descriptors;
    std::optional<Clock::time_point> lastProgress;
    while (!left.empty()) {
        const ssize_t sent = sendSome(_socket.get(), left, descriptors);
        if (sent >= 0) {
            left.remove_prefix(static_cast<std::size_t>(sent));
            descriptors = {};
            lastProgress.reset();
            continue;
        }
        *errnoValue = static_cast<int>(-sent);
        if (*errnoValue != EAGAIN) {
            const bool nothingSent = left.size() == _outgoing.bytes.size();
            return nothingSent ? SendStatus::unreachable : SendStatus::broken;
        }
        if (!lastProgress) lastProgress = Clock::now();
        if (!waitForSpace(_socket.get(), *lastProgress)) {
            *errnoValue = ETIMEDOUT;
            return SendStatus::broken;
        }
    }
    return SendStatus::sent;
}

SendStatus MessageStream::refuse(int* errnoValue) noexcept {
    *errnoValue = EMSGSIZE;
    return SendStatus::refused;
}

void MessageStream::finishOpening() {
    const std::lock_guard lock(_sendMutex);
    int errnoValue = 0;
    (void)offerHalf(&errnoValue);
}

/// Waits for space in the listener's queue, with the timeout of a send.
bool MessageStream::offerHalf(int* errnoValue) {
    if (!_offeredHalf) return true;
    const Clock::time_point start = Clock::now();
    while (_offeredHalf) {
        *errnoValue = offerConnection(_endpoint, _offeredHalf.get());
        if (*errnoValue == EAGAIN) {
            // A connection that was shut down meanwhile needs no opening.
            const bool ended = waitFor(_socket.get(), 0, Clock::now());
            if (!ended && waitForSpace(_endpoint.descriptor->get(), start)) continue;
            *errnoValue = ended ? EPIPE : ETIMEDOUT;
        }
        _offeredHalf.reset();
        _endpoint = EndpointRef();
        if (*errnoValue != 0) return false;
    }
    return true;
}

/// Returns false once the send timeout has passed.
bool MessageStream::waitForSpace(int socket, Clock::time_point lastProgress) const {
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
