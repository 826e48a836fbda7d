// SPDX-License-Identifier: MIT
// From the start of the process to the running daemon.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/bundle.hpp"
#include "operations/privileged_operation_set.hpp"
#include "platform/log/logs.hpp"

namespace corvalen {

/// Call before any other thread exists. Opens /dev/null for closed standard descriptors, ignores
/// SIGPIPE, resets SIGCHLD, blocks the termination signals (children must unblock them), changes to
/// the root directory, sets the umask to 022, raises the soft limit of descriptors to the hard one,
/// and clears the effective capabilities.
void prepareProcess() noexcept;

/// The descriptor limit at process start, to be restored in child programs; std::nullopt before
/// `prepareProcess`, constant afterwards.
[[nodiscard]] std::optional<rlimit> descriptorLimitAtStart() noexcept;

/// Returns true if `prepareProcess` found standard error closed: output to it is lost.
[[nodiscard]] bool standardErrorWasClosed() noexcept;

/// Values of the program's embedded information list; empty if missing.
struct ProgramInformation {
    std::string principalClass;
    std::string bundleIdentifier;
    std::string shortVersion;
    std::string version;
};

[[nodiscard]] ProgramInformation programInformation(const Bundle& bundle);

/// External dependencies of the start. Borrows the streams.
struct StartUpDependencies {
    uid_t realUserId = 0;
    std::FILE* output = nullptr;
    std::FILE* errors = nullptr;
    std::function<std::unique_ptr<SystemLog>(std::string_view ident, std::string_view facility,
                                             std::string_view sender)>
        openLog;
    /// Serves until the daemon ends; returns the exit status.
    std::function<int(const QRLPrivilegedOperationSet& operationSet,
                      std::shared_ptr<SystemLog> log)>
        serve;
};

/// Runs the program and returns its exit status. Without an argument, serves; with one that begins
/// with "v", prints the versions; else returns 1. `arguments` excludes the program's name.
int runProgram(const std::vector<std::string_view>& arguments, const ProgramInformation& program,
               const StartUpDependencies& dependencies);

/// Takes over the service socket and runs the daemon object. Returns 0, or 1 if there is no socket.
int serveAtServiceSocket(const QRLPrivilegedOperationSet& operationSet,
                         std::shared_ptr<SystemLog> log);

/// Returns a factory of the operation set of class `className`, which the bundle names as its
/// principal class; empty if there is no such class. The set has every group, with platform
/// services that live as long as the process.
[[nodiscard]] QRLPrivilegedOperationSet::Factory operationSetFactoryForClassName(
    std::string_view className);

}  // namespace corvalen
