// SPDX-License-Identifier: MIT
#include "exec/task_executor.hpp"

#include <poll.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <system_error>
#include <thread>
#include <vector>

#include "corvalen/descriptor.hpp"
#include "foundation/borrowed_descriptor.hpp"
#include "platform/processes/threads.hpp"

namespace corvalen {
namespace {

/// Maximum number of pairs of pipes that are read. Further pairs are closed at once, and their
/// writers get SIGPIPE.
constexpr int kMaximumLeftoverPairs = 32;

constexpr std::chrono::milliseconds kPause{100};
constexpr std::size_t kBufferSize = std::size_t{1} << 16U;
/// Capacity of the largest pipe (1 MiB, pipe(7)), in buffers.
constexpr int kReadsPerRound = 16;

std::atomic<int> pairsInUse{0};

/// Reads what the pipe holds, up to kReadsPerRound buffers; closes it at its end.
void discardAvailable(UniqueFd& pipe, std::vector<char>& buffer) noexcept {
    for (int i = 0; pipe && i < kReadsPerRound; ++i) {
        const ssize_t count = ::read(pipe.get(), buffer.data(), buffer.size());
        if (count > 0 || (count < 0 && errno == EINTR)) continue;
        if (count == 0 || errno != EAGAIN) pipe.reset();
        return;
    }
}

/// The thread outlives the operation, whose capabilities it has inherited.
void discardToTheEnd(UniqueFd output, UniqueFd error, std::vector<char> buffer) noexcept {
    dropInheritedCapabilities();
    while (output || error) {
        std::array<pollfd, 2> waiting{pollfd{output ? output.get() : -1, POLLIN, 0},
                                      pollfd{error ? error.get() : -1, POLLIN, 0}};
        if (::poll(waiting.data(), waiting.size(), -1) < 0 && errno != EINTR) break;
        discardAvailable(output, buffer);
        discardAvailable(error, buffer);
        std::this_thread::sleep_for(kPause);
    }
    --pairsInUse;
}

/// Starts a thread that reads both pipes to their ends and discards the bytes, so that their
/// writers get no SIGPIPE and do not block for long. Takes the pipes, which have O_NONBLOCK set;
/// either may be empty. The thread reads at most 1 MiB from each pipe every 100 ms, so a flood
/// costs little. Any thread may call; never blocks.
void discardLeftoverOutput(UniqueFd output, UniqueFd error) noexcept {
    if (++pairsInUse > kMaximumLeftoverPairs) {
        --pairsInUse;
        return;
    }
    try {
        std::thread(discardToTheEnd, std::move(output), std::move(error),
                    std::vector<char>(kBufferSize))
            .detach();
    } catch (const std::exception&) {  // no memory or thread: the destructors close the pipes
        --pairsInUse;
    }
}

constexpr useconds_t kPauseWithoutPoll = 10'000;

std::int64_t nowInMilliseconds() noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

/// Returns the number of bytes in the pipe.
std::size_t pendingIn(const UniqueFd& pipe) noexcept {
    int count = 0;
    return ::ioctl(pipe.get(), FIONREAD, &count) == 0 ? static_cast<std::size_t>(count) : 0;
}

/// Waits until one of the descriptors is readable or at its end. False at the
/// deadline, which is in milliseconds of CLOCK_MONOTONIC.
bool waitForBytes(Descriptor first, Descriptor second, std::int64_t deadline) noexcept {
    while (true) {
        const std::int64_t left = deadline - nowInMilliseconds();
        if (left <= 0) return false;
        std::array<pollfd, 2> waiting{pollfd{first.get(), POLLIN, 0},
                                      pollfd{second.get(), POLLIN, 0}};
        const int ready = ::poll(waiting.data(), waiting.size(), static_cast<int>(left));
        if (ready > 0) return true;
        if (ready < 0 && errno != EINTR) return false;
    }
}

}  // namespace

/// Sets the executor's handles, and resets them however the run ends.
class QRLTaskExecutor::RunningHandles {
  public:
    RunningHandles(QRLTaskExecutor& executor, const ChildProcess& child, const Stream& output,
                   const Stream& error) noexcept
        : _executor(executor) {
        set(child.input(), output.pipe, error.pipe);
    }
    ~RunningHandles() { set({}, {}, {}); }
    RunningHandles(const RunningHandles&) = delete;
    RunningHandles& operator=(const RunningHandles&) = delete;

  private:
    void set(Descriptor input, Descriptor output, Descriptor error) noexcept {
        _executor._inputHandle = input.get();
        _executor._outputHandle = output.get();
        _executor._errorHandle = error.get();
    }

    QRLTaskExecutor& _executor;
};

std::vector<std::string> inheritedEnvironment() {
    std::vector<std::string> variables;
    for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
        variables.emplace_back(*variable);
    }
    return variables;
}

QRLTaskExecutor::QRLTaskExecutor()
    : QRLTaskExecutor(ChildSurroundings{inheritedEnvironment(), std::nullopt}) {}

QRLTaskExecutor::QRLTaskExecutor(ChildSurroundings surroundings, DrainLimits limits)
    : _surroundings(std::move(surroundings)), _limits(limits) {}

bool QRLTaskExecutor::hasExecutableSafePermissionsAtPath(std::string_view path) {
    const Result<ExecutableFile> program = ExecutableFile::open(path);
    return program && program->hasSafePermissions();
}

std::int32_t QRLTaskExecutor::executeProgramAtPath(
    const std::optional<std::string>& path,
    const std::optional<std::vector<std::string>>& arguments) {
    if (!path || !arguments) return -1;
    const Result<ExecutableFile> program = ExecutableFile::open(*path);
    return program ? executeProgram(*program, *arguments) : -1;
}

std::int32_t QRLTaskExecutor::executeProgram(const ExecutableFile& program,
                                             const std::vector<std::string>& arguments) {
    _cutOff = false;
    if (QRLTaskExecutorDelegate* receiver = delegate()) receiver->taskWillExecute(*this);
    const auto launched = ChildProcess::launch(program, arguments, _surroundings);
    if (!launched) return -1;
    const std::unique_ptr<ChildProcess>& child = *launched;
    Stream output{child->takeOutput(), false};
    Stream error{child->takeError(), true};
    const RunningHandles handles(*this, *child, output, error);
    if (QRLTaskExecutorDelegate* receiver = delegate()) receiver->taskDidLaunch(*this);

    forwardUntilEnd(*child, output, error);
    const std::int32_t status = child->wait();

    drain(output, error);
    if (!output.ended || !error.ended) {
        discardLeftoverOutput(std::move(output.pipe), std::move(error.pipe));
    }
    return status;
}

void QRLTaskExecutor::forwardUntilEnd(const ChildProcess& child, Stream& output, Stream& error) {
    while (true) {
        // poll(2) would report an ended stream again and again; it ignores -1.
        std::array<pollfd, 3> waiting{
            pollfd{output.ended ? -1 : output.pipe.get(), POLLIN, 0},
            pollfd{error.ended ? -1 : error.pipe.get(), POLLIN, 0},
            pollfd{child.processDescriptor().get(), POLLIN, 0},
        };
        if (::poll(waiting.data(), waiting.size(), -1) < 0) {
            if (errno == EINTR) continue;
            // poll(2) needs memory. A child whose output is not read would wait for ever.
            ::usleep(kPauseWithoutPoll);
            waiting[0].revents = waiting[1].revents = POLLIN;
            waiting[2].revents = output.ended && error.ended ? POLLIN : 0;
        }
        if (waiting[2].revents != 0) return;
        if (waiting[0].revents != 0 && !output.ended) (void)deliverAvailable(output);
        if (waiting[1].revents != 0 && !error.ended) (void)deliverAvailable(error);
    }
}

/// Reads once and delivers. Returns the number of bytes; 0 if there are none now, or at the end.
std::size_t QRLTaskExecutor::deliverAvailable(Stream& stream) {
    _buffer.resize(kLargestTaskOutput);
    const ssize_t count = ::read(stream.pipe.get(), _buffer.data(), _buffer.size());
    if (count > 0) {
        stream.delivered = true;
        deliver({_buffer.data(), static_cast<std::size_t>(count)}, stream.isError);
        return static_cast<std::size_t>(count);
    }
    stream.ended = count == 0 || (errno != EAGAIN && errno != EINTR);
    // Whoever writes to a stream that cannot be read gets SIGPIPE instead of waiting for ever.
    if (stream.ended && count < 0) {
        (stream.isError ? _errorHandle : _outputHandle) = -1;
        stream.pipe.reset();
    }
    return 0;
}

/// Delivers as many bytes as the pipe holds now.
void QRLTaskExecutor::deliverPending(Stream& stream) {
    stream.delivered = false;
    std::size_t pending = pendingIn(stream.pipe);
    while (pending != 0 && !stream.ended) {
        pending -= std::min(pending, deliverAvailable(stream));
    }
}

/// Runs after the child's end. Delivers what the child wrote, output before error, then what the
/// processes that it left behind write, to the end of both streams or up to the limits. Delivers
/// each stream at least once, if only empty data.
void QRLTaskExecutor::drain(Stream& output, Stream& error) {
    const std::int64_t end = nowInMilliseconds() + _limits.total;
    deliverPending(output);
    deliverPending(error);
    while (!output.ended || !error.ended) {
        const std::int64_t now = nowInMilliseconds();
        if (now >= end) break;
        if (!output.ended && deliverAvailable(output) != 0) continue;
        if (!error.ended && deliverAvailable(error) != 0) continue;
        if (output.ended && error.ended) break;
        const bool isReady = waitForBytes(output.ended ? Descriptor() : Descriptor(output.pipe),
                                          error.ended ? Descriptor() : Descriptor(error.pipe),
                                          std::min(now + _limits.quiet, end));
        if (!isReady) break;
    }
    _cutOff = !(output.ended && error.ended) && nowInMilliseconds() >= end;
    if (!output.delivered) deliver({}, false);
    if (!error.delivered) deliver({}, true);
}

void QRLTaskExecutor::deliver(std::string_view bytes, bool isError) {
    if (QRLTaskExecutorDelegate* receiver = delegate()) {
        receiver->receiveTaskOutput(Data::copy(bytes), isError);
    } else {
        (void)writeAll(isError ? kStandardError : kStandardOutput, bytes);
    }
}

}  // namespace corvalen
