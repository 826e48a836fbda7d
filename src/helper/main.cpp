// SPDX-License-Identifier: MIT
// The privileged helper: wires the program together.
#include <unistd.h>

#include <cstdio>

#include "foundation/bundle.hpp"
#include "helper/process_setup.hpp"
#include "helper/start_up.hpp"

int main(int argc, char** argv) {
    using namespace corvalen;
    prepareProcess();
    const std::vector<std::string_view> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
    const StartUpSurroundings surroundings{::getuid(), stdout, stderr, openSystemLog,
                                           serveAtServiceSocket};
    const int status =
        runProgram(arguments, programInformation(Bundle::mainBundle()), surroundings);
    // Threads may still serve connections: what they use is not destroyed under them.
    ::_exit(status);
}
