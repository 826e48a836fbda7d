// SPDX-License-Identifier: MIT
#include "support/activator.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "support/own_mounts.hpp"
#include "support/unix_socket.hpp"

namespace corvalen::test {
namespace {

constexpr int kFirstPassedDescriptor = 3;

[[noreturn]] void runProgram(const std::string& program, int socket, const std::string& socketName,
                             const std::string& logFile, pid_t activator) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    // The activator may have ended before prctl(2).
    if (::getppid() != activator) ::_exit(127);
    ::dup2(::open(logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO);
    if (socket == kFirstPassedDescriptor)
        ::fcntl(socket, F_SETFD, 0);
    else
        ::dup2(socket, kFirstPassedDescriptor);
    // A daemon that exits at once joins no thread, which the thread sanitizer would report.
    ::setenv("TSAN_OPTIONS", "report_thread_leaks=0", 0);
    ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
    ::setenv("LISTEN_FDS", "1", 1);
    ::setenv("LISTEN_FDNAMES", socketName.c_str(), 1);
    ::execl(program.c_str(), program.c_str(), nullptr);
    ::_exit(127);
}

}  // namespace

bool enterPrivateMounts() {
    return enterOwnMounts({"/run", "/var/lib"});
}

Activator::Activator(const std::string& program, const std::string& socketPath,
                     const std::string& socketName, const std::string& logFile)
    : _shared(static_cast<Shared*>(::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                                          MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
    new (_shared) Shared;
    const UniqueFd listening = boundSocket(socketPath, SOCK_STREAM);
    const int socket = listening.get();
    if (::chmod(socketPath.c_str(), 0666) != 0 || ::listen(socket, 64) != 0) std::abort();
    _process = ::fork();
    if (_process != 0) return;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;) {
        pollfd waiting{socket, POLLIN, 0};
        if (::poll(&waiting, 1, -1) != 1) continue;
        const pid_t activator = ::getpid();
        const pid_t child = ::fork();
        if (child == 0) runProgram(program, socket, socketName, logFile, activator);
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

}  // namespace corvalen::test
