// SPDX-License-Identifier: MIT
// The main program of the daemon.
#include <unistd.h>

#include <cstdio>

#include "foundation/bundle.hpp"
#include "helper/start_up.hpp"

namespace {

/// Returns null if lines would go to a standard error that was closed at start.
std::unique_ptr<corvalen::SystemLog> openLog(std::string_view ident, std::string_view facility,
                                             std::string_view sender) {
    auto log = corvalen::openSystemLog(ident, facility, sender);
    const bool isLost =
        log && log->destination() == "standard error" && corvalen::standardErrorWasClosed();
    return isLost ? nullptr : std::move(log);
}

}  // namespace

int main(int argc, char** argv) {
    using namespace corvalen;
    prepareProcess();
    const std::vector<std::string_view> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
    const StartUpDependencies dependencies{::getuid(), stdout, stderr, openLog,
                                           serveAtServiceSocket};
    const int status =
        runProgram(arguments, programInformation(Bundle::mainBundle()), dependencies);
    // Not exit(3): threads may still use static objects, which it would destroy.
    ::_exit(status);
}
