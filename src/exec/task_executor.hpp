// SPDX-License-Identifier: MIT
// Runs one program and hands over what it writes while it runs.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvalen/value.hpp"
#include "platform/child_process.hpp"
#include "platform/executable_file.hpp"

namespace corvalen {

class QRLTaskExecutor;

/// Called on the thread that runs the program, never two calls at once.
class QRLTaskExecutorDelegate {
  public:
    virtual ~QRLTaskExecutorDelegate() = default;
    /// The bytes that were just read, possibly none; `isError` for those of the standard error.
    virtual void receiveTaskOutput(Data data, bool isError) = 0;
    /// Before the child is started.
    virtual void taskWillExecute(QRLTaskExecutor& /*executor*/) {}
    /// Right after the child was started.
    virtual void taskDidLaunch(QRLTaskExecutor& /*executor*/) {}
};

/// How long output is read on after the child has ended while a process that it left behind holds
/// the pipes open. In milliseconds.
struct DrainLimits {
    /// Without a byte from either stream.
    std::int64_t quiet = 1000;
    /// Altogether, however much is written.
    std::int64_t total = 30'000;
};
/// The most bytes in one delivery.
inline constexpr std::size_t kLargestTaskOutput = std::size_t{256} << 10U;

/// Serves one child at a time, on the thread that calls it.
class QRLTaskExecutor {
  public:
    /// The child inherits the environment of this process.
    QRLTaskExecutor();
    explicit QRLTaskExecutor(ChildSurroundings surroundings, DrainLimits limits = {});
    QRLTaskExecutor(const QRLTaskExecutor&) = delete;
    QRLTaskExecutor& operator=(const QRLTaskExecutor&) = delete;

    /// Not owned. Without one, output goes to this process's own standard output and error.
    void setDelegate(QRLTaskExecutorDelegate* delegate) noexcept { _delegate = delegate; }
    [[nodiscard]] QRLTaskExecutorDelegate* delegate() const noexcept { return _delegate; }

    /// Our ends of the child's pipes; -1 while no child runs.
    [[nodiscard]] int subTaskInputHandle() const noexcept { return _inputHandle; }
    [[nodiscard]] int subTaskOutputHandle() const noexcept { return _outputHandle; }
    [[nodiscard]] int subTaskErrorHandle() const noexcept { return _errorHandle; }

    /// Whether a program may be trusted to run with all privileges: links resolved, it is there, is
    /// no folder, and it and its folder are the system's (see `ExecutableFile`).
    [[nodiscard]] static bool hasExecutableSafePermissionsAtPath(std::string_view path);

    /// Runs the program to its end, the arguments as they stand, and gives its exit status (or the
    /// signal that ended it). -1 without path or arguments and when it cannot be started.
    std::int32_t executeProgramAtPath(const std::optional<std::string>& path,
                                      const std::optional<std::vector<std::string>>& arguments);
    /// The same with a program that was opened before.
    std::int32_t executeProgram(const ExecutableFile& program,
                                const std::vector<std::string>& arguments);

    /// Whether the last run reached `DrainLimits::total`, so that later output was discarded.
    [[nodiscard]] bool wasOutputCutOff() const noexcept { return _cutOff; }

  private:
    class RunningHandles;
    struct Stream {
        const UniqueFd& pipe;
        bool isError;
        bool ended = false;
        bool delivered = false;
    };

    void forwardUntilEnd(const ChildProcess& child, Stream& output, Stream& error);
    std::size_t deliverAvailable(Stream& stream);
    void deliverPending(Stream& stream);
    void drain(Stream& output, Stream& error);
    void deliver(std::string_view bytes, bool isError);

    ChildSurroundings _surroundings;
    DrainLimits _limits;
    bool _cutOff = false;
    std::vector<char> _buffer;
    std::atomic<QRLTaskExecutorDelegate*> _delegate{nullptr};
    std::atomic<int> _inputHandle{-1};
    std::atomic<int> _outputHandle{-1};
    std::atomic<int> _errorHandle{-1};
};

/// The environment of this process.
[[nodiscard]] std::vector<std::string> inheritedEnvironment();

}  // namespace corvalen
