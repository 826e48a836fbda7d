// SPDX-License-Identifier: MIT
#include "xpc/socket_io.hpp"

#include <poll.h>
#include <sched.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>
#include <mutex>
#include <semaphore>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "xpc/limits.hpp"

namespace corvalen {
namespace {

// SCM_PIDFD of linux/socket.h: a pidfd of the sender, sent if a process that shares the socket set
// SO_PASSPIDFD.
constexpr int kScmPidfd = 4;
// Bytes for one descriptor more than a message may have, and for other control messages.
constexpr std::size_t kReceivedControlSize = 256;

void takeDescriptors(const cmsghdr& header, std::vector<UniqueFd>& descriptors) {
    const std::size_t count = (header.cmsg_len - CMSG_LEN(0)) / sizeof(int);
    std::array<int, kReceivedControlSize / sizeof(int)> fds{};
    std::memcpy(fds.data(), CMSG_DATA(&header), count * sizeof(int));
    std::vector<UniqueFd> owned;
    try {
        owned.reserve(count);
        descriptors.reserve(descriptors.size() + count);
    } catch (...) {
        for (std::size_t i = 0; i < count; ++i)
            UniqueFd(fds[i]).reset();
        throw;
    }
    for (std::size_t i = 0; i < count; ++i)
        owned.emplace_back(fds[i]);
    if (header.cmsg_type == SCM_RIGHTS) {
        std::move(owned.begin(), owned.end(), std::back_inserter(descriptors));
    }
}

bool hasOption(Descriptor socket, int option, int wanted) noexcept {
    int value = 0;
    socklen_t size = sizeof value;
    return ::getsockopt(socket.get(), SOL_SOCKET, option, &value, &size) == 0 && value == wanted;
}

// Batches a flood of sockets: a round closes all that arrived since the last one.
constexpr std::chrono::milliseconds kPauseBetweenRounds{5};

using Sockets = std::vector<UniqueFd>;

/// Never destroyed: its thread may outlive static objects.
struct Closer {
    std::mutex mutex;
    Sockets waiting;
    bool running = false;
};

Closer& closer() {
    static Closer& one = *new Closer;
    return one;
}

/// An exiting thread holds the last references, so the close(2) here is never the last one. The
/// kernel does not let an exiting task linger (PF_EXITING in inet_release()).
void closeWithoutLingering(Sockets& sockets) {
    std::binary_semaphore referenced(0);
    std::binary_semaphore closed(0);
    std::thread holder([&] {
        (void)::unshare(CLONE_FILES);
        referenced.release();
        closed.acquire();
    });
    referenced.acquire();
    sockets.clear();
    closed.release();
    holder.join();
}

void closeInRounds(Closer& shared) {
    for (;;) {
        Sockets round;
        {
            const std::lock_guard lock(shared.mutex);
            shared.running = !shared.waiting.empty();
            if (!shared.running) return;
            round.swap(shared.waiting);
        }
        try {
            closeWithoutLingering(round);
        } catch (const std::system_error&) {
            // No second thread: this one closes the sockets, which may block.
        }
        round.clear();
        std::this_thread::sleep_for(kPauseBetweenRounds);
    }
}

/// The result of send(2) or sendmsg(2).
Result<std::size_t> sentBytes(ssize_t sent) noexcept {
    if (sent < 0) return failure(errno);
    return static_cast<std::size_t>(sent);
}

}  // namespace

Result<Received> receive(Descriptor socket, std::span<char> buffer,
                         std::vector<UniqueFd>& descriptors, Waiting waiting,
                         std::optional<ucred>* sender) {
    alignas(cmsghdr) std::array<char, kReceivedControlSize> control;
    iovec part{buffer.data(), buffer.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const int flags = MSG_CMSG_CLOEXEC | (waiting == Waiting::yes ? 0 : MSG_DONTWAIT);
    ssize_t size = 0;
    do {
        size = ::recvmsg(socket.get(), &message, flags);
    } while (size < 0 && errno == EINTR);
    if (size < 0) return failure(errno);
    const Received received{static_cast<std::size_t>(size), (message.msg_flags & MSG_CTRUNC) != 0};
    if (message.msg_controllen == 0) return received;
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
         header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level != SOL_SOCKET) continue;
        if (header->cmsg_type == SCM_RIGHTS || header->cmsg_type == kScmPidfd) {
            takeDescriptors(*header, descriptors);
        } else if (header->cmsg_type == SCM_CREDENTIALS && sender != nullptr) {
            std::memcpy(&sender->emplace(), CMSG_DATA(header), sizeof(ucred));
        }
    }
    return received;
}

Result<std::size_t> sendSome(Descriptor socket, std::string_view bytes,
                             std::span<const Descriptor> descriptors) noexcept {
    static_assert(sizeof(Descriptor) == sizeof(int) && std::is_trivially_copyable_v<Descriptor>);
    constexpr int kFlags = MSG_NOSIGNAL | MSG_DONTWAIT;
    ssize_t sent = 0;
    if (descriptors.empty()) {
        do {
            sent = ::send(socket.get(), bytes.data(), bytes.size(), kFlags);
        } while (sent < 0 && errno == EINTR);
        return sentBytes(sent);
    }
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int) * wire::kMaximumEndpoints)> control{};
    iovec part{const_cast<char*>(bytes.data()), bytes.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = CMSG_SPACE(descriptors.size_bytes());
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(descriptors.size_bytes());
    std::memcpy(CMSG_DATA(header), descriptors.data(), descriptors.size_bytes());
    do {
        sent = ::sendmsg(socket.get(), &message, kFlags);
    } while (sent < 0 && errno == EINTR);
    return sentBytes(sent);
}

bool waitFor(Descriptor socket, short events, std::optional<Clock::time_point> deadline) noexcept {
    pollfd entry{socket.get(), events, 0};
    for (;;) {
        int timeout = -1;
        if (deadline) {
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()).count();
            constexpr std::int64_t kLongestWait = 1000000;
            timeout = static_cast<int>(std::clamp<std::int64_t>(left, 0, kLongestWait));
        }
        const int ready = ::poll(&entry, 1, timeout);
        if (ready > 0) return true;
        if (ready < 0 && errno != EINTR) return true;
        if (deadline && Clock::now() >= *deadline) return false;
    }
}

SocketPair makeSocketPair(int type) {
    std::array<int, 2> halves{};
    if (::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, halves.data()) != 0) return {};
    return {UniqueFd(halves[0]), UniqueFd(halves[1])};
}

bool isHalfOfSocketPair(Descriptor descriptor, int type) noexcept {
    if (!hasOption(descriptor, SO_DOMAIN, AF_UNIX) || !hasOption(descriptor, SO_TYPE, type) ||
        !hasOption(descriptor, SO_ACCEPTCONN, 0)) {
        return false;
    }
    sockaddr_un address{};
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (::getpeername(descriptor.get(), generic, &size) != 0 || size > sizeof(sa_family_t))
        return false;
    size = sizeof address;
    return ::getsockname(descriptor.get(), generic, &size) == 0 && size <= sizeof(sa_family_t);
}

void closeElsewhere(UniqueFd socket) noexcept {
    if (!socket) return;
    Closer& shared = closer();
    const std::lock_guard lock(shared.mutex);
    try {
        shared.waiting.push_back(std::move(socket));
        if (shared.running) return;
        std::thread([&shared] { closeInRounds(shared); }).detach();
        shared.running = true;
    } catch (...) {
        // Without memory the socket stays open; without a thread it waits for the next call.
        (void)socket.release();
    }
}

}  // namespace corvalen
