// SPDX-License-Identifier: MIT
// From the command line to the running daemon.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/bundle.hpp"
#include "operations/privileged_operation_set.hpp"
#include "platform/system_log.hpp"

namespace corvalen {

/// What the embedded information list says of the program; what it does not say is empty.
struct ProgramInformation {
    std::string principalClass;
    std::string bundleIdentifier;
    std::string shortVersion;
    std::string version;
};

[[nodiscard]] ProgramInformation programInformation(const Bundle& bundle);

/// What the start depends on beyond the program itself.
struct StartUpSurroundings {
    uid_t realUserId = 0;
    std::FILE* output = nullptr;
    std::FILE* errors = nullptr;
    std::function<std::unique_ptr<SystemLog>(std::string_view ident, std::string_view facility,
                                             std::string_view sender)>
        openLog;
    /// Serves until the daemon is asked to end; gives the exit status.
    std::function<int(const QRLPrivilegedOperationSet& operationSet,
                      std::shared_ptr<SystemLog> log)>
        serve;
};

/// Does what the command line asks for and gives the exit status: without an argument the daemon
/// serves, one that begins with "v" prints the versions, all else is status 1. `arguments` leaves
/// the program's own name out.
int runProgram(const std::vector<std::string_view>& arguments, const ProgramInformation& program,
               const StartUpSurroundings& surroundings);

/// The daemon of this machine: takes the service socket over and runs the daemon object. Gives 0,
/// or 1 when the socket cannot be had.
int serveAtServiceSocket(const QRLPrivilegedOperationSet& operationSet,
                         std::shared_ptr<SystemLog> log);

}  // namespace corvalen
