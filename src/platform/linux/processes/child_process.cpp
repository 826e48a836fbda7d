// SPDX-License-Identifier: MIT
#include "platform/processes/child_process.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>

namespace corvalen {

namespace {

// In bytes. More than the usual 64 KiB, for fewer switches between the two sides.
constexpr int kPipeCapacity = 1 << 20;
constexpr int kFirstOtherDescriptor = STDERR_FILENO + 1;
constexpr int kCannotStart = 127;

// On older systems <linux/close_range.h> conflicts with <unistd.h>.
constexpr unsigned kCloseRangeCloseOnExec = 1U << 2U;

struct Pipe {
    UniqueFd readEnd;
    UniqueFd writeEnd;
};

/// Moves a descriptor above the numbers of the standard streams, where the child places the ends.
UniqueFd aboveStandardStreams(UniqueFd descriptor) noexcept {
    if (!descriptor || descriptor.get() >= kFirstOtherDescriptor) return descriptor;
    return UniqueFd(::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, kFirstOtherDescriptor));
}

bool makePipe(Pipe& pipe) noexcept {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return false;
    pipe.readEnd = UniqueFd(ends[0]);
    pipe.writeEnd = UniqueFd(ends[1]);
    pipe.readEnd = aboveStandardStreams(std::move(pipe.readEnd));
    pipe.writeEnd = aboveStandardStreams(std::move(pipe.writeEnd));
    return pipe.readEnd && pipe.writeEnd;
}

/// Returns a null-terminated array for execve(2). Borrows the strings.
std::vector<char*> pointersTo(const std::vector<std::string>& strings,
                              const char* first = nullptr) {
    std::vector<char*> pointers;
    pointers.reserve(strings.size() + 2);
    if (first != nullptr) pointers.push_back(const_cast<char*>(first));
    for (const std::string& text : strings) {
        pointers.push_back(const_cast<char*>(text.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

/// The child's data, prepared before fork(2): until execveat(2) the child may neither allocate nor
/// lock, because other threads may have held locks at the fork.
struct ChildPlan {
    int program;
    const char* resolvedPath;
    char* const* arguments;
    char* const* environment;
    const rlimit* descriptorLimit;
    int input;
    int output;
    int error;
    int report;
    pid_t parent;
};

void resetSignals() noexcept {
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; ++number) {
        (void)::sigaction(number, &standard, nullptr);
    }
    sigset_t none;
    ::sigemptyset(&none);
    (void)::sigprocmask(SIG_SETMASK, &none, nullptr);
}

void execute(const ChildPlan& plan) noexcept {
    (void)::syscall(SYS_execveat, plan.program, "", plan.arguments, plan.environment,
                    AT_EMPTY_PATH);
    // The kernel refuses a script with a close-on-exec descriptor: its interpreter could not open
    // it. Run by path, the script also finds its own name in $0, and the files beside it.
    if (errno == ENOENT) (void)::execve(plan.resolvedPath, plan.arguments, plan.environment);
}

[[noreturn]] void becomeProgram(const ChildPlan& plan) noexcept {
    (void)::setpgid(0, 0);
    (void)::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != plan.parent) ::_exit(kCannotStart);
    resetSignals();
    if (plan.descriptorLimit != nullptr) (void)::setrlimit(RLIMIT_NOFILE, plan.descriptorLimit);
    if (::dup2(plan.input, STDIN_FILENO) >= 0 && ::dup2(plan.output, STDOUT_FILENO) >= 0 &&
        ::dup2(plan.error, STDERR_FILENO) >= 0) {
        // A library may have opened descriptors without O_CLOEXEC. Older kernels lack the call.
        (void)::syscall(SYS_close_range, static_cast<unsigned>(kFirstOtherDescriptor), UINT_MAX,
                        kCloseRangeCloseOnExec);
        execute(plan);
    }
    const int failure = errno;
    (void)!::write(plan.report, &failure, sizeof failure);
    ::_exit(kCannotStart);
}

/// Blocks all signals: none of the caller's handlers may run in the child.
class AllSignalsBlocked {
  public:
    AllSignalsBlocked() noexcept {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &_saved);
    }
    ~AllSignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &_saved, nullptr); }
    AllSignalsBlocked(const AllSignalsBlocked&) = delete;
    AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

  private:
    sigset_t _saved{};
};

/// Returns the errno that the child reported; 0 if execution closed the pipe.
int reportedFailure(int report) noexcept {
    int failure = 0;
    ssize_t count = 0;
    do {
        count = ::read(report, &failure, sizeof failure);
    } while (count < 0 && errno == EINTR);
    return count == static_cast<ssize_t>(sizeof failure) ? failure : 0;
}

}  // namespace

std::unique_ptr<ChildProcess> ChildProcess::launch(const ExecutableFile& program,
                                                   const std::vector<std::string>& arguments,
                                                   const ChildSurroundings& surroundings) {
    std::unique_ptr<ChildProcess> child(new ChildProcess);
    if (child->start(program, arguments, surroundings)) return child;
    const int failure = errno;
    child.reset();
    errno = failure;
    return nullptr;
}

bool ChildProcess::start(const ExecutableFile& program, const std::vector<std::string>& arguments,
                         const ChildSurroundings& surroundings) {
    Pipe input;
    Pipe output;
    Pipe error;
    Pipe report;
    if (!makePipe(input) || !makePipe(output) || !makePipe(error) || !makePipe(report)) {
        return false;
    }
    for (const UniqueFd* reading : {&output.readEnd, &error.readEnd}) {
        (void)::fcntl(reading->get(), F_SETPIPE_SZ, kPipeCapacity);
        (void)::fcntl(reading->get(), F_SETFL, O_NONBLOCK);
    }
    const std::vector<char*> argumentPointers = pointersTo(arguments, program.path().c_str());
    const std::vector<char*> environmentPointers = pointersTo(surroundings.environment);
    const ChildPlan plan{
        program.descriptor(),
        program.resolvedPath().c_str(),
        argumentPointers.data(),
        environmentPointers.data(),
        surroundings.descriptorLimit ? &*surroundings.descriptorLimit : nullptr,
        input.readEnd.get(),
        output.writeEnd.get(),
        error.writeEnd.get(),
        report.writeEnd.get(),
        ::getpid(),
    };
    {
        const AllSignalsBlocked blocked;
        _pid = ::fork();
        if (_pid == 0) becomeProgram(plan);
    }
    if (_pid < 0) return false;
    report.writeEnd.reset();
    const int failure = reportedFailure(report.readEnd.get());
    // The child is not reaped yet, so the pid is its own, whether it runs or not.
    _process = UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, _pid, 0)));
    if (failure != 0) errno = failure;
    if (failure != 0 || !_process) return false;
    _input = std::move(input.writeEnd);
    _output = std::move(output.readEnd);
    _error = std::move(error.readEnd);
    return true;
}

ChildProcess::~ChildProcess() {
    if (_pid <= 0) return;
    // The group's number cannot be reused before its leader is reaped.
    (void)::kill(-_pid, SIGKILL);
    (void)::kill(_pid, SIGKILL);
    (void)wait();
}

std::int32_t ChildProcess::wait() noexcept {
    int status = 0;
    pid_t reaped = 0;
    do {
        reaped = ::waitpid(_pid, &status, 0);
    } while (reaped < 0 && errno == EINTR);
    _pid = 0;
    if (reaped < 0) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status);
}

}  // namespace corvalen
