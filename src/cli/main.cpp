// SPDX-License-Identifier: MIT
#include <libintl.h>
#include <locale.h>
#include <signal.h>

#include <string>
#include <vector>

#include "cli/command_table.hpp"
#include "cli/operation_runner.hpp"
#include "cli/other_programs.hpp"
#include "cli/report.hpp"
#include "operations/privileged_operation_set.hpp"

namespace {

using namespace corvalen::cli;

int run(const ParsedCommandLine& parsed) {
    try {
        return parsed.command->run != nullptr
                   ? parsed.command->run(parsed.arguments)
                   : runOperation(*parsed.command, parsed.arguments,
                                  checkedRequest(*parsed.command, parsed.arguments));
    } catch (const UsageError& error) {
        return report({std::string(parsed.command->name), {}, error.what(), {}, kExitUsage});
    }
}

/// Sets the user's language for texts only: numbers and sorting keep the C locale.
void adoptLocale() {
    ::setlocale(LC_CTYPE, "");
    ::setlocale(LC_MESSAGES, "");
    ::bindtextdomain(
        corvalen::QRLPrivilegedOperationSet::nameOfErrorMessageLocalizationTable().c_str(),
        CORVALEN_LOCALE_DIRECTORY);
}

}  // namespace

int main(int argc, char** argv) {
    // A reader that left shows as EPIPE.
    ::signal(SIGPIPE, SIG_IGN);
    adoptLocale();
    RemoteRequest request;
    try {
        request = takeHost({argv + 1, argv + argc});
    } catch (const UsageError& error) {
        return report({{}, {}, error.what(), {}, kExitUsage});
    }
    if (!request.host.empty()) {
        if (request.wantsJson) reportAsJson();
        return runRemotely(request);
    }
    const ParsedCommandLine parsed = parseCommandLine(request.words);
    if (parsed.wantsJson) reportAsJson();
    if (parsed.command != nullptr && parsed.arguments.has("remote"))
        return report({{},
                       {},
                       "--remote must be a word of its own, and come before a command that passes "
                       "words on",
                       {},
                       kExitUsage});
    if (parsed.command != nullptr) return run(parsed);
    if (!parsed.errorText.empty()) return report({{}, {}, parsed.errorText, {}, parsed.exitCode});
    const int written = writePaged(parsed.outputText, parsed.arguments);
    return written != kExitSuccess ? written : parsed.exitCode;
}
