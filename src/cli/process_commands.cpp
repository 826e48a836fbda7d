// SPDX-License-Identifier: MIT
// Commands for processes and utilities.
#include "cli/command_table.hpp"
#include "foundation/path.hpp"
#include "operations/names.hpp"

namespace corvalen::cli {
namespace {

constexpr std::uint64_t kLargestProcessId = 0x7FFFFFFF;

Request terminateProcess(const Arguments& arguments) {
    const std::uint64_t process = arguments.unsignedNumber("PID");
    if (process == 0 || process > kLargestProcessId)
        throw UsageError("a process has a number from 1 to 2147483647");
    return {{Value(process)}, "process " + arguments.text("PID")};
}

Request executeUtility(const Arguments& arguments) {
    if (arguments.text("UTILITY") == kUtilityOfApplication && !arguments.has("application"))
        throw UsageError("lipo is an application's own: give --application");
    // Only lipo is taken from the application, but the argument must not be empty.
    const std::string application =
        arguments.has("application") ? arguments.path("application") : "/";
    Request request{{Value(application), Value(arguments.text("UTILITY"))},
                    arguments.text("UTILITY")};
    for (const std::string& argument : arguments.all("ARGUMENT"))
        request.arguments.emplace_back(argument);
    return request;
}

constexpr Option kUtilityOptions[] = {{"--application", "PATH",
                                       "the bundle of the application that lipo is taken from",
                                       false, Completion::path}};
constexpr Positional kProcess[] = {{"PID", "the number of the process", 1, 1, Completion::process}};
constexpr Positional kUtility[] = {
    {"UTILITY", "its name, without a path", 1, 1, Completion::utility},
    {"ARGUMENT", "passed to the utility unchanged, options too", 0, kUnlimited, Completion::path}};

constexpr std::string_view kUtilityDetails =
    "Prints the output of the utility byte for byte while it runs; on a terminal, control "
    "characters\n"
    "are escaped. If the utility fails, shows its status and exits with 1. Arguments are passed\n"
    "unchanged: write absolute paths.\n"
    "The utilities, as far as the machine has them:";

/// Returns the details with the names of the utilities, wrapped at the width of the first line.
const std::string& utilityDetails() {
    static const std::string details = [] {
        std::string text(kUtilityDetails);
        const std::size_t width = text.find('\n');
        std::size_t line = width;
        for (const std::string_view path : kPermittedUtilities) {
            const std::string_view name = lastPathComponent(path);
            const bool fits = line + name.size() < width;
            text.append(fits ? " " : "\n").append(name);
            line = (fits ? line + 1 : 0) + name.size();
        }
        return text;
    }();
    return details;
}

const Command kProcessCommands[] = {
    {"terminate-process",
     "",
     "Sends SIGTERM. The process may take time to end, or ignore it.",
     {},
     kProcess,
     terminateProcess},
    {"execute-utility", "", utilityDetails(), kUtilityOptions, kUtility, executeUtility,
     View::liveOutput, nullptr, true},
};

}  // namespace

std::string utilityNames() {
    std::string names;
    for (const std::string_view path : kPermittedUtilities)
        names.append(names.empty() ? "" : " ").append(lastPathComponent(path));
    return names;
}

std::span<const Command> processCommands() {
    return kProcessCommands;
}

}  // namespace corvalen::cli
