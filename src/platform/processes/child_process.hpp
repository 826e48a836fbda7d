// SPDX-License-Identifier: MIT
// A program run as a child process, with its three standard streams connected to pipes.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "corvalen/descriptor.hpp"
#include "foundation/result.hpp"
#include "platform/processes/executable_file.hpp"

namespace corvalen {

/// Environment and limits of the child. It also starts with default signal handling, no descriptors
/// but its standard streams, and the caller's working directory, file creation mask and
/// credentials.
struct ChildSurroundings {
    /// Strings of the form "NAME=value".
    std::vector<std::string> environment;
    /// Limit of descriptors (RLIMIT_NOFILE, setrlimit(2)); without it the caller's own.
    std::optional<rlimit> descriptorLimit;
};

/// A running child in a process group of its own. Only the thread that launched it may use it: when
/// that thread ends, the kernel sends the child SIGTERM (prctl(2), PR_SET_PDEATHSIG).
class ChildProcess {
  public:
    /// Starts the program; `arguments` excludes argv[0], which is program.path(). An interpreter
    /// opens a script by its resolved path, so it reads the file that was checked only if nobody
    /// can replace that meanwhile.
    [[nodiscard]] static Result<std::unique_ptr<ChildProcess>> launch(
        const ExecutableFile& program, const std::vector<std::string>& arguments,
        const ChildSurroundings& surroundings);

    /// Kills the child with its process group and reaps it, unless wait() has returned.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// The caller's ends of the pipes. The reading ends are non-blocking.
    [[nodiscard]] const UniqueFd& input() const noexcept { return _input; }
    [[nodiscard]] const UniqueFd& output() const noexcept { return _output; }
    [[nodiscard]] const UniqueFd& error() const noexcept { return _error; }
    /// Move the reading ends out.
    [[nodiscard]] UniqueFd takeOutput() noexcept { return std::move(_output); }
    [[nodiscard]] UniqueFd takeError() noexcept { return std::move(_error); }
    /// A pidfd (pidfd_open(2)): readable once the child has ended.
    [[nodiscard]] const UniqueFd& processDescriptor() const noexcept { return _process; }

    /// Waits for the child and reaps it. Returns its exit status, the number of the signal that
    /// ended it, or -1 if waitpid(2) fails. Call once.
    std::int32_t wait() noexcept;

  private:
    ChildProcess() = default;
    Result<> start(const ExecutableFile& program, const std::vector<std::string>& arguments,
                   const ChildSurroundings& surroundings);

    pid_t _pid = 0;
    UniqueFd _process;
    UniqueFd _input;
    UniqueFd _output;
    UniqueFd _error;
};

}  // namespace corvalen
