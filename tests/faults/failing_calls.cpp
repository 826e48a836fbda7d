// SPDX-License-Identifier: MIT
#include "faults/failing_calls.hpp"

#include <libaudit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sched.h>
#include <sys/fsuid.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <vector>

#include "corvalen/descriptor.hpp"
#include "foundation/property_list.hpp"
#include "support/open_descriptors.hpp"

namespace {

/// Until the next allocation that fails; below 0 none does.
std::atomic<long> allocationsLeft{-1};
/// Then all fail.
std::atomic<bool> memoryIsOut{false};
/// In memory that both processes see: the operation may die of it.
std::atomic<bool>* allocationFailed = nullptr;
/// What the next close(2) is to return, in memory that both processes see.
std::atomic<int>* errorOfClose = nullptr;

void* allocate(std::size_t size) {
    if (allocationsLeft.load(std::memory_order_relaxed) >= 0) {
        const long left = memoryIsOut && *allocationFailed ? 0 : allocationsLeft--;
        if (left == 0) {
            if (memoryIsOut) allocationsLeft = 0;
            *allocationFailed = true;
            throw std::bad_alloc();
        }
    }
    if (void* memory = std::malloc(size != 0 ? size : 1)) return memory;
    throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t size) {
    return allocate(size);
}
void* operator new[](std::size_t size) {
    return allocate(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

extern "C" int close(int descriptor) {
    const long result = ::syscall(SYS_close, descriptor);
    const int error = errorOfClose != nullptr ? errorOfClose->exchange(0) : 0;
    if (error == 0) return static_cast<int>(result);
    errno = error;
    return -1;
}

namespace corvalen::test {
namespace {

constexpr int kPatience = 30'000;  // milliseconds
constexpr mode_t kMask = 027;
constexpr int kThrew = 3;
constexpr int kTries = 200;
#ifdef SYS_mmap
constexpr int kMapMemory = SYS_mmap;
#else
constexpr int kMapMemory = SYS_mmap2;  // 32 bits
#endif

/// Linux 6.6: the waiting process is scheduled at once, on the same processor as its partner.
constexpr unsigned long kSetFlags = SECCOMP_IOW(4, std::uint64_t);
constexpr std::uint64_t kWakeUpInTurn = 1;

constexpr long kLeftAlone[] = {
    SYS_exit,     SYS_exit_group,    SYS_rt_sigreturn,    SYS_rt_sigprocmask, SYS_rt_sigaction,
    SYS_futex,    SYS_sched_yield,   SYS_getpid,          SYS_gettid,         SYS_getppid,
    SYS_getuid,   SYS_geteuid,       SYS_umask,           SYS_munmap,         SYS_mprotect,
    SYS_madvise,  SYS_brk,           SYS_set_robust_list, SYS_capset,         SYS_setfsuid,
    SYS_setfsgid, SYS_clock_gettime, SYS_clock_nanosleep,
#ifdef SYS_rseq
    SYS_rseq,
#endif
};
std::string nameOf(int number) {
    const char* name = ::audit_syscall_to_name(number, ::audit_detect_machine());
    return name != nullptr ? name : "call " + std::to_string(number);
}

/// What child and parent share.
struct Shared {
    std::atomic<int> listener{-1};
    std::atomic<bool> taken{false};
    std::atomic<bool> answered{false};
    std::atomic<bool> reached{false};
    std::atomic<int> errorOfClose{0};
    std::int64_t code = 0;
    char domain[64] = "";
    char answer[512] = "";
    char damage[64] = "";
};

int installFilter() {
    std::vector<sock_filter> program = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (const long call : kLeftAlone) {
        program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(call), 0, 1));
        program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF));
    const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return -1;
    return static_cast<int>(
        ::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &filter));
}

/// The child's side. Returns what it lost or kept.
const char* damageSince(std::ptrdiff_t descriptors) {
    if (::waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD) return "left a child process";
    // A thread that discards the rest of an output closes it a moment later.
    for (int tries = 0; tries < kTries && openDescriptors() != descriptors; ++tries)
        ::usleep(1000);
    if (openDescriptors() != descriptors) return "lost or closed a descriptor";
    if (::umask(kMask) != kMask) return "changed the file creation mask";
    if (::setfsuid(static_cast<uid_t>(-1)) != 0) return "is not root any more";
    return "";
}

[[noreturn]] void runChild(Shared* shared, const Fault& fault,
                           const std::function<ErrorRef()>& operation) {
    ::umask(kMask);
    const std::ptrdiff_t descriptors =
        openDescriptors() + (fault.kind == Fault::Kind::call ? 1 : 0);
    if (fault.kind == Fault::Kind::call) {
        const int listener = installFilter();
        if (listener < 0) ::_exit(2);
        shared->listener = listener;
        while (!shared->taken)
            ::sched_yield();
    }
    errorOfClose = &shared->errorOfClose;
    allocationFailed = &shared->reached;
    memoryIsOut = fault.kind == Fault::Kind::memory;
    if (memoryIsOut || fault.kind == Fault::Kind::allocation) allocationsLeft = fault.number;
    try {
        const ErrorRef answer = operation();
        allocationsLeft = -1;
        if (answer) {
            shared->code = answer->code();
            answer->domain().copy(shared->domain, sizeof shared->domain - 1);
            if (answer->code() == 0 && answer->userInfo() != nullptr)
                xmlPropertyList(*answer->userInfo())
                    ->copy(shared->answer, sizeof shared->answer - 1);
        }
    } catch (...) {
        allocationsLeft = -1;
        if (!memoryIsOut) ::_exit(kThrew);
        shared->code = ENOMEM;
    }
    errorOfClose = nullptr;
    shared->answered = true;
    std::strcpy(shared->damage, damageSince(descriptors));
    ::_exit(0);
}

/// Answers the child's calls until it has ended.
class Supervisor {
  public:
    Supervisor(Shared* shared, pid_t child, const Fault& fault, UniqueFd listener)
        : _shared(shared), _child(child), _fault(fault), _listener(std::move(listener)) {}

    /// False when the child made no call for too long.
    bool run() {
        while (true) {
            pollfd waiting{_listener.get(), POLLIN, 0};
            const int ready = ::poll(&waiting, 1, kPatience);
            if (ready == 0) return false;
            if ((waiting.revents & POLLIN) == 0) return true;
            answerOne();
        }
    }
    [[nodiscard]] const std::string& where() const noexcept { return _where; }

  private:
    void answerOne() {
        seccomp_notif call{};
        if (::ioctl(_listener.get(), SECCOMP_IOCTL_NOTIF_RECV, &call) != 0) return;
        seccomp_notif_resp response{};
        response.id = call.id;
        response.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
        const bool counts =
            !_shared->answered && mayFail(call.data.nr) && isOurs(static_cast<pid_t>(call.pid));
        if (counts && _count++ == _fault.number) {
            _shared->reached = true;
            _where = nameOf(call.data.nr);
            if (call.data.nr == SYS_close) {
                _shared->errorOfClose = _fault.error;
            } else {
                response.flags = 0;
                response.error = -_fault.error;
            }
        }
        (void)::ioctl(_listener.get(), SECCOMP_IOCTL_NOTIF_SEND, &response);
    }
    /// Waiting for a child of one's own is only ever interrupted.
    [[nodiscard]] bool mayFail(int number) const noexcept {
        if (number == SYS_wait4) return _fault.error == EINTR;
        return number != kMapMemory || _fault.error == ENOMEM;
    }
    /// False for a utility, once it is executed, and for what it starts.
    [[nodiscard]] bool isOurs(pid_t thread) const {
        if (thread == _child) return true;
        std::error_code ended;
        const auto program =
            std::filesystem::read_symlink("/proc/" + std::to_string(thread) + "/exe", ended);
        return program == _ownProgram;
    }

    const std::filesystem::path _ownProgram = std::filesystem::read_symlink("/proc/self/exe");
    Shared* _shared;
    pid_t _child;
    Fault _fault;
    UniqueFd _listener;
    int _count = 0;
    std::string _where;
};

UniqueFd takeListener(Shared* shared, pid_t child) {
    const UniqueFd process(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
    while (shared->listener < 0) {
        siginfo_t ended{};
        if (::waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT) != 0 ||
            ended.si_pid == child)
            return {};
        ::sched_yield();
    }
    UniqueFd listener(
        static_cast<int>(::syscall(SYS_pidfd_getfd, process.get(), shared->listener.load(), 0)));
    (void)::ioctl(listener.get(), kSetFlags, kWakeUpInTurn);
    shared->taken = true;
    return listener;
}

}  // namespace

Outcome runWithFault(const Fault& fault, const std::function<ErrorRef()>& operation) {
    void* memory =
        ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) std::abort();
    auto* shared = new (memory) Shared;
    const pid_t child = ::fork();
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        runChild(shared, fault, operation);
    }
    Outcome outcome;
    bool inTime = true;
    if (fault.kind == Fault::Kind::call) {
        Supervisor supervisor(shared, child, fault, takeListener(shared, child));
        inTime = supervisor.run();
        outcome.where = supervisor.where() + " " + std::to_string(fault.number);
    } else {
        outcome.where = "allocation " + std::to_string(fault.number);
    }
    if (!inTime) ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    outcome.reached = shared->reached;
    outcome.answered = shared->answered;
    outcome.code = shared->code;
    outcome.domain = shared->domain;
    outcome.answer = shared->answer;
    outcome.damage = shared->damage;
    if (!inTime) outcome.damage = "hangs";
    if (inTime && WIFSIGNALED(status))
        outcome.damage = "died of signal " + std::to_string(WTERMSIG(status));
    else if (inTime && WEXITSTATUS(status) != 0)
        outcome.damage = WEXITSTATUS(status) == kThrew ? "threw" : "exited";
    ::munmap(memory, sizeof(Shared));
    return outcome;
}

bool canInterceptCalls() {
    const Outcome outcome = runWithFault({Fault::Kind::call, 0, EIO}, [] {
        struct stat status {};
        return ::stat("/", &status) == 0 ? ErrorRef() : makePosixError(errno);
    });
    return outcome.reached && outcome.code == EIO;
}

}  // namespace corvalen::test
