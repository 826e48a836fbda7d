// SPDX-License-Identifier: MIT
// Processes: program files, children of the caller, processes of any user, and the service manager.
#pragma once

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "corvalen/descriptor.hpp"
#include "corvalen/error.hpp"
#include "foundation/borrowed_descriptor.hpp"
#include "foundation/result.hpp"

namespace corvalen {

/// A program and its directory, both open with O_PATH (open(2)): renames cannot change which
/// objects are checked and executed. Scripts are the exception: their interpreter opens them by
/// path.
class ExecutableFile {
  public:
    /// Follows links in `path`. Fails if the path is empty or does not lead to an object.
    [[nodiscard]] static Result<ExecutableFile> open(std::string_view path);

    /// The path as given: argv[0] of the program.
    [[nodiscard]] const std::string& path() const noexcept { return _path; }
    /// The path without links, which the interpreter of a script opens.
    [[nodiscard]] const std::string& resolvedPath() const noexcept { return _resolvedPath; }
    [[nodiscard]] Descriptor descriptor() const noexcept { return _file; }

    [[nodiscard]] bool isFolder() const noexcept;
    /// Returns whether only the system can have changed or replaced it: it is no directory, and it
    /// and its directory belong to user 0 and group 0 and are not writable by group or others.
    [[nodiscard]] bool hasSafePermissions() const noexcept;

  private:
    ExecutableFile(std::string path, std::string resolvedPath, UniqueFd folder, UniqueFd file)
        : _path(std::move(path)),
          _resolvedPath(std::move(resolvedPath)),
          _folder(std::move(folder)),
          _file(std::move(file)) {}

    std::string _path;
    std::string _resolvedPath;
    UniqueFd _folder;
    UniqueFd _file;
};

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

/// Stateless; any thread may call.
class Processes {
  public:
    virtual ~Processes() = default;

    /// Sends one process SIGTERM. ESRCH if it does not exist, EINVAL below 1, which kill(2) takes
    /// for a process group or for all processes.
    [[nodiscard]] virtual Result<> terminate(pid_t processIdentifier) = 0;
};

[[nodiscard]] std::unique_ptr<Processes> makeProcesses();

/// The socket of the service and its origin.
struct ServiceSocket {
    Result<UniqueFd> socket;
    /// Created here; its path must be removed at the end.
    bool madeHere = false;
    /// Log lines: each passed descriptor that was closed, and why.
    std::vector<std::string> remarks;
};

/// Returns the listening socket of the service `name` that the service manager passed
/// (sd_listen_fds(3): LISTEN_PID, LISTEN_FDS, LISTEN_FDNAMES): a single listening local stream
/// socket, or the one of several that is named `name` or `name`.socket. Without one, creates a
/// socket at `wellKnownPath` (mode 0666), after removing a stale one on which nobody listens.
/// Removes the environment variables of the convention; call before threads exist.
[[nodiscard]] ServiceSocket takeServiceSocket(std::string_view name,
                                              std::string_view wellKnownPath);

/// Sends the service manager a state such as "READY=1" (sd_notify(3)), if there is one.
void notifyServiceManager(std::string_view state) noexcept;

}  // namespace corvalen
