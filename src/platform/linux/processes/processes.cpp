// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <limits>

#include "foundation/path.hpp"
#include "platform/processes/processes.hpp"

namespace corvalen {
namespace {

bool statusOf(Descriptor descriptor, struct stat& status) noexcept {
    return ::fstat(descriptor.get(), &status) == 0;
}

bool belongsToTheSystem(const struct stat& status) noexcept {
    return status.st_uid == 0 && status.st_gid == 0 && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

}  // namespace

Result<ExecutableFile> ExecutableFile::open(std::string_view path) {
    if (path.empty() || path.find('\0') != std::string_view::npos) return failure(ENOENT);
    std::string resolved = resolveSymlinksInPath(path);
    std::string folderPath = deleteLastPathComponent(resolved);
    if (folderPath.empty()) folderPath = ".";
    UniqueFd folder(::open(folderPath.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!folder) return failure(errno);
    const std::string name(lastPathComponent(resolved));
    // A link put here meanwhile would lead out of the directory that is checked.
    UniqueFd file(::openat(folder.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!file || !statusOf(file, status)) return failure(errno);
    if (S_ISLNK(status.st_mode)) return failure(ENOENT);
    return ExecutableFile(std::string(path), std::move(resolved), std::move(folder),
                          std::move(file));
}

bool ExecutableFile::isFolder() const noexcept {
    struct stat status {};
    return statusOf(_file, status) && S_ISDIR(status.st_mode);
}

bool ExecutableFile::hasSafePermissions() const noexcept {
    struct stat file {};
    struct stat folder {};
    return statusOf(_file, file) && !S_ISDIR(file.st_mode) && belongsToTheSystem(file) &&
           statusOf(_folder, folder) && belongsToTheSystem(folder);
}

namespace {

// In bytes. More than the usual 64 KiB, for fewer switches between the two sides.
constexpr int kPipeCapacity = 1 << 20;
constexpr int kFirstOtherDescriptor = STDERR_FILENO + 1;
constexpr int kCannotStart = 127;

struct Pipe {
    UniqueFd readEnd;
    UniqueFd writeEnd;
};

/// Moves a descriptor above the numbers of the standard streams, where the child places the ends.
Result<UniqueFd> aboveStandardStreams(UniqueFd descriptor) noexcept {
    if (descriptor.get() >= kFirstOtherDescriptor) return descriptor;
    return openedBy(::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, kFirstOtherDescriptor));
}

Result<Pipe> makePipe() noexcept {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return failure(errno);
    UniqueFd writing(ends[1]);
    Result<UniqueFd> readEnd = aboveStandardStreams(UniqueFd(ends[0]));
    if (!readEnd) return failure(readEnd.error());
    Result<UniqueFd> writeEnd = aboveStandardStreams(std::move(writing));
    if (!writeEnd) return failure(writeEnd.error());
    return Pipe{*std::move(readEnd), *std::move(writeEnd)};
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
    Descriptor program;
    const char* resolvedPath;
    char* const* arguments;
    char* const* environment;
    const rlimit* descriptorLimit;
    Descriptor input;
    Descriptor output;
    Descriptor error;
    Descriptor report;
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
    (void)::syscall(SYS_execveat, plan.program.get(), "", plan.arguments, plan.environment,
                    AT_EMPTY_PATH);
    // The kernel refuses a script with a close-on-exec descriptor: its interpreter could not open
    // it. Run by path, the script also finds its own name in $0, and the files beside it.
    if (errno == ENOENT) (void)::execve(plan.resolvedPath, plan.arguments, plan.environment);
}

void closeRange(int first, int last) noexcept {
    if (first <= last)
        (void)::syscall(SYS_close_range, static_cast<unsigned>(first), static_cast<unsigned>(last),
                        0U);
}

void closeAllBut(std::array<int, 3> kept) noexcept {
    std::sort(kept.begin(), kept.end());
    int first = kFirstOtherDescriptor;
    for (const int each : kept) {
        closeRange(first, each - 1);
        first = each + 1;
    }
    closeRange(first, std::numeric_limits<int>::max());
}

/// Closes what the daemon had open, but not these two. The last close(2) of a socket that a client
/// sent may block for hours (SO_LINGER), and execveat(2) would do it. So another process holds the
/// same descriptors and ends last: the kernel does not let it linger. Without one, execveat(2)
/// closes them.
void closeInheritedBut(Descriptor one, Descriptor other) noexcept {
    std::array<int, 2> gate{};
    if (::pipe2(gate.data(), O_CLOEXEC) != 0) return;
    const pid_t holder = ::_Fork();  // unlike fork(2), takes no lock
    if (holder == 0) {
        char none = 0;
        ::close(gate[1]);
        (void)!::read(gate[0], &none, 1);
        ::_exit(0);
    }
    if (holder > 0) closeAllBut({one.get(), other.get(), gate[1]});
    ::close(gate[1]);
    while (holder > 0 && ::waitpid(holder, nullptr, 0) < 0 && errno == EINTR) {
    }
}

[[noreturn]] void becomeProgram(const ChildPlan& plan) noexcept {
    (void)::setpgid(0, 0);
    (void)::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != plan.parent) ::_exit(kCannotStart);
    resetSignals();
    if (plan.descriptorLimit != nullptr) (void)::setrlimit(RLIMIT_NOFILE, plan.descriptorLimit);
    if (::dup2(plan.input.get(), STDIN_FILENO) >= 0 &&
        ::dup2(plan.output.get(), STDOUT_FILENO) >= 0 &&
        ::dup2(plan.error.get(), STDERR_FILENO) >= 0) {
        closeInheritedBut(plan.program, plan.report);
        execute(plan);
    }
    const int reason = errno;
    (void)!::write(plan.report.get(), &reason, sizeof reason);
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

/// Returns the error that the child reported; success if execution closed the pipe.
Result<> awaitExecution(Descriptor report) noexcept {
    int reason = 0;
    ssize_t count = 0;
    do {
        count = ::read(report.get(), &reason, sizeof reason);
    } while (count < 0 && errno == EINTR);
    if (count == static_cast<ssize_t>(sizeof reason)) return failure(reason);
    return {};
}

}  // namespace

Result<std::unique_ptr<ChildProcess>> ChildProcess::launch(
    const ExecutableFile& program, const std::vector<std::string>& arguments,
    const ChildSurroundings& surroundings) {
    std::unique_ptr<ChildProcess> child(new ChildProcess);
    const Result<> started = child->start(program, arguments, surroundings);
    if (!started) return failure(started.error());
    return child;
}

Result<> ChildProcess::start(const ExecutableFile& program,
                             const std::vector<std::string>& arguments,
                             const ChildSurroundings& surroundings) {
    std::array<Pipe, 4> pipes;
    for (Pipe& pipe : pipes) {
        Result<Pipe> made = makePipe();
        if (!made) return failure(made.error());
        pipe = *std::move(made);
    }
    auto& [input, output, error, report] = pipes;
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
        input.readEnd,
        output.writeEnd,
        error.writeEnd,
        report.writeEnd,
        ::getpid(),
    };
    {
        const AllSignalsBlocked blocked;
        _pid = ::fork();
        if (_pid == 0) becomeProgram(plan);
    }
    if (_pid < 0) return failure(errno);
    report.writeEnd.reset();
    if (const Result<> executed = awaitExecution(report.readEnd); !executed) return executed;
    // The child is not reaped yet, so the pid is its own.
    _process = UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, _pid, 0)));
    if (!_process) return failure(errno);
    _input = std::move(input.writeEnd);
    _output = std::move(output.readEnd);
    _error = std::move(error.readEnd);
    return {};
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

namespace {

class HostProcesses final : public Processes {
  public:
    Result<> terminate(pid_t processIdentifier) override {
        if (processIdentifier < 1) return failure(EINVAL);
        return resultOf(::kill(processIdentifier, SIGTERM));
    }
};

}  // namespace

std::unique_ptr<Processes> makeProcesses() {
    return std::make_unique<HostProcesses>();
}

}  // namespace corvalen
