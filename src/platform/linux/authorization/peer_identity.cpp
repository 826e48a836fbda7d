// SPDX-License-Identifier: MIT
#include "platform/authorization/peer_identity.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <string_view>
#include <utility>

namespace corvalen {

namespace {

// SO_PEERPIDFD, since Linux 6.5; older headers lack it.
constexpr int kPeerPidFdOption = 77;

// Field 22, counted from the field after the command name (field 2).
constexpr int kFieldsBeforeStartTime = 19;

/// A pidfd becomes readable once its process has ended.
bool hasEnded(int processDescriptor) noexcept {
    pollfd waiting{processDescriptor, POLLIN, 0};
    return ::poll(&waiting, 1, 0) != 0;
}

std::uint64_t startTimeInStat(std::string_view stat) noexcept {
    // A process chooses its command name, which may contain ") 1 2 3": the last parenthesis ends
    // it.
    const std::size_t nameEnd = stat.rfind(')');
    if (nameEnd == std::string_view::npos || nameEnd + 2 > stat.size()) return 0;
    stat.remove_prefix(nameEnd + 2);
    for (int field = 0; field < kFieldsBeforeStartTime; ++field) {
        const std::size_t space = stat.find(' ');
        if (space == std::string_view::npos) return 0;
        stat.remove_prefix(space + 1);
    }
    std::uint64_t startTime = 0;
    const auto parsed = std::from_chars(stat.data(), stat.data() + stat.size(), startTime);
    return parsed.ec == std::errc() ? startTime : 0;
}

}  // namespace

bool PeerIdentity::isAlive() const noexcept {
    if (pid <= 0) return false;
    if (processDescriptor) return !hasEnded(processDescriptor->get());
    return startTime != 0 && processStartTime(pid) == startTime;
}

PeerIdentity peerIdentityOfSocket(int socket) {
    PeerIdentity peer;
    peer.socket = socket;
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0 ||
        credentials.pid <= 0) {
        return peer;
    }
    peer.pid = credentials.pid;
    peer.uid = credentials.uid;
    peer.gid = credentials.gid;

    int processDescriptor = -1;
    length = sizeof processDescriptor;
    if (::getsockopt(socket, SOL_SOCKET, kPeerPidFdOption, &processDescriptor, &length) == 0) {
        UniqueFd owned(processDescriptor);
        peer.processDescriptor = std::make_shared<const UniqueFd>(std::move(owned));
    } else if (errno != ENOPROTOOPT) {
        return peer;  // the process has ended; its pid may be reused
    }
    const std::uint64_t startTime = processStartTime(peer.pid);
    // If the peer is alive now, the start time read before is its own: the pid was not reused.
    if (!peer.processDescriptor || !hasEnded(peer.processDescriptor->get())) {
        peer.startTime = startTime;
    }
    return peer;
}

std::uint64_t processStartTime(pid_t pid) noexcept {
    std::array<char, 32> path{};
    fmt::format_to_n(path.data(), path.size() - 1, "/proc/{}/stat", pid);
    const UniqueFd file(::open(path.data(), O_RDONLY | O_CLOEXEC));
    if (!file) return 0;
    std::array<char, 1024> buffer{};
    const ssize_t count = ::read(file.get(), buffer.data(), buffer.size());
    return count > 0 ? startTimeInStat({buffer.data(), static_cast<std::size_t>(count)}) : 0;
}

}  // namespace corvalen
