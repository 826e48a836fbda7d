// SPDX-License-Identifier: MIT
#include "support/activator.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace corvalen::test {
namespace {

constexpr int kFirstPassedDescriptor = 3;

int listenAt(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::chmod(path.c_str(), 0666) != 0 || ::listen(fd, SOMAXCONN) != 0)
        std::abort();
    return fd;
}

[[noreturn]] void runProgram(const std::string& program, int socket, const std::string& socketName,
                             const std::string& logFile) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::dup2(::open(logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO);
    if (socket == kFirstPassedDescriptor)
        ::fcntl(socket, F_SETFD, 0);
    else
        ::dup2(socket, kFirstPassedDescriptor);
    // A daemon that ends at once joins no thread, which the thread sanitizer would hold against it.
    ::setenv("TSAN_OPTIONS", "report_thread_leaks=0", 0);
    ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
    ::setenv("LISTEN_FDS", "1", 1);
    ::setenv("LISTEN_FDNAMES", socketName.c_str(), 1);
    ::execl(program.c_str(), program.c_str(), nullptr);
    ::_exit(127);
}

}  // namespace

bool eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

bool enterPrivateMounts() {
    return ::unshare(CLONE_NEWNS) == 0 &&
           ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("tmpfs", "/run", "tmpfs", 0, nullptr) == 0 &&
           ::mount("tmpfs", "/var/lib", "tmpfs", 0, nullptr) == 0;
}

struct Activator::Shared {
    std::atomic<int> starts{0};
    std::atomic<int> ends{0};
    std::atomic<int> lastStatus{0};
    std::atomic<pid_t> lastProcess{0};
};

Activator::Activator(const std::string& program, const std::string& socketPath,
                     const std::string& socketName, const std::string& logFile)
    : _shared(static_cast<Shared*>(::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                                          MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
    new (_shared) Shared;
    const int socket = listenAt(socketPath);
    _process = ::fork();
    if (_process != 0) {
        ::close(socket);
        return;
    }
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;) {
        pollfd waiting{socket, POLLIN, 0};
        if (::poll(&waiting, 1, -1) != 1) continue;
        const pid_t child = ::fork();
        if (child == 0) runProgram(program, socket, socketName, logFile);
        _shared->lastProcess = child;
        ++_shared->starts;
        int status = 0;
        ::waitpid(child, &status, 0);
        _shared->lastStatus = status;
        ++_shared->ends;
    }
}

Activator::~Activator() {
    ::kill(_process, SIGKILL);
    ::waitpid(_process, nullptr, 0);
    ::munmap(_shared, sizeof(Shared));
}

int Activator::starts() const noexcept {
    return _shared->starts;
}
int Activator::ends() const noexcept {
    return _shared->ends;
}
int Activator::lastStatus() const noexcept {
    return _shared->lastStatus;
}
pid_t Activator::lastProcess() const noexcept {
    return _shared->lastProcess;
}

}  // namespace corvalen::test
