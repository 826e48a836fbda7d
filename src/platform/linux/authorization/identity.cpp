// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <mutex>
#include <string_view>
#include <utility>

#include "platform/authorization/identity.hpp"

namespace corvalen {
namespace {

// SO_PEERPIDFD, since Linux 6.5; older headers lack it.
constexpr int kPeerPidFdOption = 77;

// Field 22, counted from the field after the command name (field 2).
constexpr int kFieldsBeforeStartTime = 19;

/// A pidfd becomes readable once its process has ended.
bool hasEnded(Descriptor processDescriptor) noexcept {
    pollfd waiting{processDescriptor.get(), POLLIN, 0};
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
    if (processDescriptor) return !hasEnded(*processDescriptor);
    return startTime != 0 && processStartTime(pid) == startTime;
}

PeerIdentity peerIdentityOfSocket(Descriptor socket) {
    PeerIdentity peer;
    peer.socket = socket;
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0 ||
        credentials.pid <= 0) {
        return peer;
    }
    peer.pid = credentials.pid;
    peer.uid = credentials.uid;
    peer.gid = credentials.gid;

    int processDescriptor = -1;
    length = sizeof processDescriptor;
    if (::getsockopt(socket.get(), SOL_SOCKET, kPeerPidFdOption, &processDescriptor, &length) ==
        0) {
        UniqueFd owned(processDescriptor);
        peer.processDescriptor = std::make_shared<const UniqueFd>(std::move(owned));
    } else if (errno != ENOPROTOOPT) {
        return peer;  // the process has ended; its pid may be reused
    }
    const std::uint64_t startTime = processStartTime(peer.pid);
    // If the peer is alive now, the start time read before is its own: the pid was not reused.
    if (!peer.processDescriptor || !hasEnded(*peer.processDescriptor)) {
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

namespace {

/// getpwent(3) has one position per process.
std::mutex iterationMutex;

class NameServiceUserDatabase : public UserDatabase {
  public:
    std::vector<std::uint32_t> listedUserIDs() override {
        const std::lock_guard lock(iterationMutex);
        std::vector<std::uint32_t> ids;
        while (const passwd* account = ::getpwent())
            ids.push_back(account->pw_uid);
        ::endpwent();
        return ids;
    }
};

}  // namespace

std::unique_ptr<UserDatabase> makeUserDatabase() {
    return std::make_unique<NameServiceUserDatabase>();
}

namespace {

constexpr std::size_t kFirstRecordSize = 1024;
constexpr std::size_t kLargestRecordSize = std::size_t{1024} * 1024;
constexpr int kMostGroups = 65536;  // the kernel's limit (NGROUPS_MAX)

std::vector<gid_t> groupsOfUser(const char* name, gid_t group) {
    int count = 16;
    std::vector<gid_t> groups(static_cast<std::size_t>(count));
    while (::getgrouplist(name, group, groups.data(), &count) < 0) {
        if (count > kMostGroups) count = kMostGroups;
        if (static_cast<std::size_t>(count) <= groups.size()) break;
        groups.resize(static_cast<std::size_t>(count));
    }
    groups.resize(static_cast<std::size_t>(count));
    return groups;
}

/// Calls `look`, a re-entrant variant of getpwnam(3), with a buffer that grows as needed.
template <class Look>
std::optional<UserAccount> accountFound(Look look) {
    std::vector<char> buffer(kFirstRecordSize);
    struct passwd record {};
    struct passwd* found = nullptr;
    int error = 0;
    while ((error = look(&record, buffer.data(), buffer.size(), &found)) == ERANGE &&
           buffer.size() < kLargestRecordSize) {
        buffer.resize(buffer.size() * 4);
    }
    if (error != 0 || found == nullptr) return std::nullopt;
    return UserAccount{found->pw_uid, found->pw_gid, groupsOfUser(found->pw_name, found->pw_gid),
                       found->pw_dir};
}

}  // namespace

std::optional<UserAccount> userAccountNamed(const std::string& name) {
    return accountFound(
        [&name](struct passwd* record, char* buffer, std::size_t size, struct passwd** found) {
            return ::getpwnam_r(name.c_str(), record, buffer, size, found);
        });
}

std::optional<UserAccount> ownUserAccount() {
    return accountFound(
        [](struct passwd* record, char* buffer, std::size_t size, struct passwd** found) {
            return ::getpwuid_r(::geteuid(), record, buffer, size, found);
        });
}

}  // namespace corvalen
