// SPDX-License-Identifier: MIT
#include "platform/processes/processes.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <string>
#include <vector>

#include "foundation/borrowed_descriptor.hpp"
#include "foundation/result.hpp"

namespace corvalen {

namespace {

constexpr int kFirstPassedDescriptor = 3;
// More than any unit passes; larger numbers are malformed.
constexpr int kMostPassedDescriptors = 1024;
// As in the socket unit: further clients wait until one of these is accepted.
constexpr int kListenBacklog = 64;
// Gives sockets mode 0666.
constexpr mode_t kSocketMask = 0111;

/// Returns a number from the environment; -1 if missing or malformed.
int environmentNumber(const char* name) noexcept {
    const char* text = ::getenv(name);
    if (text == nullptr) return -1;
    const std::string_view digits(text);
    int number = -1;
    const auto parsed = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return parsed.ec == std::errc() && parsed.ptr == digits.data() + digits.size() ? number : -1;
}

int socketOption(Descriptor socket, int option) noexcept {
    int value = -1;
    socklen_t length = sizeof value;
    return ::getsockopt(socket.get(), SOL_SOCKET, option, &value, &length) == 0 ? value : -1;
}

bool isListeningLocalSocket(Descriptor socket) noexcept {
    return socketOption(socket, SO_DOMAIN) == AF_UNIX &&
           socketOption(socket, SO_TYPE) == SOCK_STREAM && socketOption(socket, SO_ACCEPTCONN) == 1;
}

/// Returns the element at `index` of a colon-separated list; empty if the list is shorter.
std::string_view nameAt(std::string_view names, int index) noexcept {
    for (; index > 0; --index) {
        const std::size_t colon = names.find(':');
        if (colon == std::string_view::npos) return {};
        names.remove_prefix(colon + 1);
    }
    return names.substr(0, names.find(':'));
}

/// Accepts the service's name and that of its socket unit, which a unit without FileDescriptorName=
/// passes.
bool isNameOfService(std::string_view passed, std::string_view name) noexcept {
    if (passed.substr(0, name.size()) != name) return false;
    passed.remove_prefix(name.size());
    return passed.empty() || passed == ".socket";
}

/// Takes all passed descriptors; closes those that are not the service's, with a remark. Returns an
/// empty one if none is.
UniqueFd takePassedSocket(std::string_view name, std::vector<std::string>& remarks) {
    const int owner = environmentNumber("LISTEN_PID");
    const int count = environmentNumber("LISTEN_FDS");
    const char* namesText = ::getenv("LISTEN_FDNAMES");
    const std::string names(namesText != nullptr ? namesText : "");
    for (const char* variable : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES", "LISTEN_PIDFDID"}) {
        ::unsetenv(variable);
    }
    UniqueFd taken;
    if (owner != ::getpid() || count < 1 || count > kMostPassedDescriptors) return taken;
    for (int i = 0; i < count; ++i) {
        const int descriptor = kFirstPassedDescriptor + i;
        if (::fcntl(descriptor, F_SETFD, FD_CLOEXEC) != 0) continue;
        UniqueFd passed(descriptor);
        const std::string_view passedName = nameAt(names, i);
        const bool wanted = count == 1 || names.empty() || isNameOfService(passedName, name);
        const bool listens = isListeningLocalSocket(passed);
        if (!taken && wanted && listens) {
            taken = std::move(passed);
            continue;
        }
        remarks.push_back(
            fmt::format("The descriptor {} ('{}') that the service manager passed is closed: {}.",
                        descriptor, passedName,
                        !listens ? "it is no listening local stream socket"
                        : wanted ? "the service has a socket already"
                                 : "of several sockets the service takes the one with its name"));
    }
    return taken;
}

/// Locks the check and replacement of a stale socket, so that two daemons that start at once cannot
/// remove each other's socket. The lock file belongs to root, so no other user can hold it.
Result<UniqueFd> lockBeside(const std::string& path) {
    const std::string lockPath = path + ".lock";
    UniqueFd lock(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!lock || ::flock(lock.get(), LOCK_EX) != 0) return failure(errno);
    return lock;
}

/// Removes a socket on which nobody listens. Fails if the path must stay.
Result<> removeStaleSocket(const sockaddr_un& address) {
    struct stat status {};
    const Result<> examined = resultOf(::lstat(address.sun_path, &status));
    if (failedWith(examined, ENOENT)) return {};
    if (!examined) return examined;
    if (!S_ISSOCK(status.st_mode)) return failure(EEXIST);
    // Non-blocking: a live listener with a full backlog returns EAGAIN.
    const UniqueFd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!probe) return failure(errno);
    if (::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
        errno != ECONNREFUSED) {
        return failure(EADDRINUSE);
    }
    return resultOf(::unlink(address.sun_path));
}

Result<UniqueFd> listenAtPath(std::string_view path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) return failure(ENAMETOOLONG);
    path.copy(address.sun_path, path.size());

    const Result<UniqueFd> lock = lockBeside(std::string(path));
    if (!lock) return failure(lock.error());
    if (const Result<> removed = removeStaleSocket(address); !removed)
        return failure(removed.error());
    UniqueFd listening(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!listening) return failure(errno);
    const mode_t before = ::umask(kSocketMask);
    const Result<> bound = resultOf(
        ::bind(listening.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
    ::umask(before);
    if (!bound) return failure(bound.error());
    if (::listen(listening.get(), kListenBacklog) != 0) return failure(errno);
    return listening;
}

}  // namespace

ServiceSocket takeServiceSocket(std::string_view name, std::string_view wellKnownPath) {
    ServiceSocket taken;
    UniqueFd passed = takePassedSocket(name, taken.remarks);
    taken.madeHere = !passed;
    taken.socket = passed ? std::move(passed) : listenAtPath(wellKnownPath);
    return taken;
}

void notifyServiceManager(std::string_view state) noexcept {
    (void)::sd_notify(0, std::string(state).c_str());
}

}  // namespace corvalen
