// SPDX-License-Identifier: MIT
// A program run as a child process, its three standard streams connected to pipes.
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
#include "platform/executable_file.hpp"

namespace corvalen {

/// What the child begins with, besides default signal handling, no other descriptors and the
/// caller's folder, mask and credentials.
struct ChildSurroundings {
    /// "NAME=value" each.
    std::vector<std::string> environment;
    /// The limit of descriptors (setrlimit(2)), the caller's own when there is none.
    std::optional<rlimit> descriptorLimit;
};

/// A running child in a process group of its own. Used by one thread, the one that launched it:
/// when that thread ends, the child is told to end (SIGTERM).
class ChildProcess {
  public:
    /// Starts the program; `arguments` leaves its name out. Null, with errno set, when it cannot
    /// be started. A script is started by its resolved path, which its interpreter reads: it is
    /// the file that was opened only if nobody can exchange that meanwhile.
    static std::unique_ptr<ChildProcess> launch(const ExecutableFile& program,
                                                const std::vector<std::string>& arguments,
                                                const ChildSurroundings& surroundings);

    /// A child that was not waited for is killed with its whole process group, and reaped.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// Our ends of the pipes; reading never waits.
    [[nodiscard]] const UniqueFd& input() const noexcept { return _input; }
    [[nodiscard]] const UniqueFd& output() const noexcept { return _output; }
    [[nodiscard]] const UniqueFd& error() const noexcept { return _error; }
    /// Give our reading ends away, after the child has ended.
    [[nodiscard]] UniqueFd takeOutput() noexcept { return std::move(_output); }
    [[nodiscard]] UniqueFd takeError() noexcept { return std::move(_error); }
    /// A pidfd (pidfd_open(2)): readable when the child has ended.
    [[nodiscard]] const UniqueFd& processDescriptor() const noexcept { return _process; }

    /// Waits for the child to end and reaps it: its exit status, or the number of the signal that
    /// ended it. Once only.
    std::int32_t wait() noexcept;

  private:
    ChildProcess() = default;
    bool start(const ExecutableFile& program, const std::vector<std::string>& arguments,
               const ChildSurroundings& surroundings);

    pid_t _pid = 0;
    UniqueFd _process;
    UniqueFd _input;
    UniqueFd _output;
    UniqueFd _error;
};

}  // namespace corvalen
