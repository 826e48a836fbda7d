// SPDX-License-Identifier: MIT
#include <signal.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "cli/operation_runner.hpp"
#include "cli/output.hpp"
#include "cli/parser.hpp"

namespace {

using namespace corvalen::cli;

int run(const ParsedCommandLine& parsed) {
    try {
        return parsed.command->run != nullptr ? parsed.command->run(parsed.arguments)
                                              : runOperation(*parsed.command, parsed.arguments);
    } catch (const UsageError& error) {
        printError(std::string(parsed.command->name) + ": " + error.what());
        return kExitUsage;
    }
}

}  // namespace

int main(int argc, char** argv) {
    // A reader that leaves is noticed by the failing write.
    ::signal(SIGPIPE, SIG_IGN);
    const std::vector<std::string> words(argv + 1, argv + argc);
    const ParsedCommandLine parsed = parseCommandLine(words);
    Output(STDOUT_FILENO).write(parsed.outputText);
    if (!parsed.errorText.empty()) printError(parsed.errorText);
    return parsed.command != nullptr ? run(parsed) : parsed.exitCode;
}
