// SPDX-License-Identifier: MIT
// Runs one program and delivers its output while it runs.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvalen/value.hpp"
#include "platform/processes/processes.hpp"

namespace corvalen {

class QRLTaskExecutor;

/// Called only on the thread that runs the program.
class QRLTaskExecutorDelegate {
  public:
    virtual ~QRLTaskExecutorDelegate() = default;
    /// Receives the bytes that were just read, possibly none; `isError` if from standard error.
    virtual void receiveTaskOutput(Data data, bool isError) = 0;
    /// Called before the child is started.
    virtual void taskWillExecute(QRLTaskExecutor& /*executor*/) {}
    /// Called right after the child was started.
    virtual void taskDidLaunch(QRLTaskExecutor& /*executor*/) {}
};

/// How long to read output after the child's end while processes that it left behind hold the
/// pipes open. Milliseconds.
struct DrainLimits {
    /// Ends the reading after this time without a byte from either stream.
    std::int64_t quiet = 1000;
    /// Ends the reading in any case.
    std::int64_t total = 30'000;
};
/// Maximum number of bytes in one delivery.
inline constexpr std::size_t kLargestTaskOutput = std::size_t{256} << 10U;

/// Runs one child at a time, on the calling thread. Other threads may only read the handles and
/// set the delegate.
class QRLTaskExecutor {
  public:
    /// The child inherits the environment of this process.
    QRLTaskExecutor();
    explicit QRLTaskExecutor(ChildSurroundings surroundings, DrainLimits limits = {});
    QRLTaskExecutor(const QRLTaskExecutor&) = delete;
    QRLTaskExecutor& operator=(const QRLTaskExecutor&) = delete;

    /// Borrowed. Without a delegate, output goes to this process's standard output and error.
    void setDelegate(QRLTaskExecutorDelegate* delegate) noexcept { _delegate = delegate; }
    [[nodiscard]] QRLTaskExecutorDelegate* delegate() const noexcept { return _delegate; }

    /// This process's ends of the child's pipes; -1 while no child runs.
    [[nodiscard]] int subTaskInputHandle() const noexcept { return _inputHandle; }
    [[nodiscard]] int subTaskOutputHandle() const noexcept { return _outputHandle; }
    [[nodiscard]] int subTaskErrorHandle() const noexcept { return _errorHandle; }

    /// Whether the program is safe to run as root: with symlinks resolved, it exists, is not a
    /// directory, and only root can change it or its directory (see `ExecutableFile`).
    [[nodiscard]] static bool hasExecutableSafePermissionsAtPath(std::string_view path);

    /// Runs the program to its end with exactly these arguments. Returns its exit status or the
    /// signal that ended it; -1 if path or arguments are missing, or if it cannot be started.
    std::int32_t executeProgramAtPath(const std::optional<std::string>& path,
                                      const std::optional<std::vector<std::string>>& arguments);
    /// The same for an open program.
    std::int32_t executeProgram(const ExecutableFile& program,
                                const std::vector<std::string>& arguments);

    /// Whether the last run reached `DrainLimits::total`; later output was discarded then.
    [[nodiscard]] bool wasOutputCutOff() const noexcept { return _cutOff; }

  private:
    class RunningHandles;
    struct Stream {
        UniqueFd pipe;
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

/// Copies the environment of this process (environ(7)).
[[nodiscard]] std::vector<std::string> inheritedEnvironment();

}  // namespace corvalen
