// SPDX-License-Identifier: MIT
// The privileged helper: wires the program together.
#include <unistd.h>

#include <cstdio>

#include "helper/process_setup.hpp"
#include "helper/start_up.hpp"

int main(int argc, char** argv) {
    using namespace corvalen;
    prepareProcess();
    const ProgramInformation program{"QRLPrivilegedOperationSetKVX",
                                     "net.corvalen.system.privilegedhelper-kvx", "1.4", "141112"};
    const int status =
        runProgram({argv + (argc > 0 ? 1 : 0), argv + argc}, program,
                   {::getuid(), stdout, stderr, openSystemLog, serveAtServiceSocket});
    // Threads may still serve connections: what they use is not destroyed under them.
    ::_exit(status);
}
