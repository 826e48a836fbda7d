// SPDX-License-Identifier: MIT
// Commands for the daemon itself, its rights and its log.
#include <fmt/format.h>
#include <unistd.h>

#include <corvalen/catalogue.hpp>
#include <corvalen/failure.hpp>
#include <corvalen/rights.hpp>

#include "cli/call_command.hpp"
#include "cli/command_table.hpp"
#include "cli/helper_commands.hpp"
#include "cli/operation_manual.hpp"
#include "cli/operation_runner.hpp"
#include "cli/pager.hpp"
#include "cli/report.hpp"
#include "cli/session.hpp"
#include "cli/text.hpp"
#include "operations/operation_descriptions.hpp"

namespace corvalen::cli {
namespace {

int runVersion(const Arguments& arguments) {
    return withSession(arguments, [&](Client& client) {
        ErrorRef error;
        const std::string version = client.version(&error);
        if (error) return report(failureOf("version", {}, error));
        if (arguments.has("json"))
            return writeOutput("{\"version\":" + jsonString(version) + "}\n");
        return writeOutput(escapedForTerminal(version) + "\n");
    });
}

int runList(const Arguments& arguments) {
    if (!arguments.has("OPERATION"))
        return writePaged(arguments.has("json") ? catalogueJson() : catalogueTable(), arguments);
    const OperationInfo& operation = operationOf(arguments.text("OPERATION"));
    const OperationDescription& description = *descriptionOfOperation(operation.code);
    return writePaged(
        arguments.has("json") ? operationJson(description) : operationText(description), arguments);
}

int runDebug(const Arguments& arguments) {
    const std::string state = arguments.text("STATE");
    if (state != "on" && state != "off") throw UsageError("the state is 'on' or 'off'");
    return withSession(arguments, [&](Client& client) {
        ErrorRef error;
        return client.enableDebugMode(state == "on", &error)
                   ? static_cast<int>(kExitSuccess)
                   : report(failureOf("debug", {}, error));
    });
}

int changeRights(std::string_view command, bool (*change)(ErrorRef*)) {
    ErrorRef error;
    if (change(&error)) return kExitSuccess;
    if (hostErrno(error) == EPERM && ::geteuid() != 0)
        return report({std::string(command), {}, "this needs root", {}, kExitNotAuthorized, error});
    return report(failureOf(command, {}, error));
}

int runInstallRights(const Arguments& /*arguments*/) {
    return changeRights("install-rights", defineRights);
}

int runRemoveRights(const Arguments& /*arguments*/) {
    if (const auto refusal = refusalToRemoveRights("remove-rights")) return report(*refusal);
    return changeRights("remove-rights", removeRights);
}

Request noArguments(const Arguments& /*arguments*/) {
    return {{}, {}};
}

Request deleteFiles(const Arguments& arguments) {
    Request request{arguments.paths("PATH"), arguments.path("PATH")};
    request.question = "Delete '" + request.subject + "'?";
    const std::size_t count = request.arguments.size();
    if (count == 1) return request;
    request.subject.clear();
    request.question = "Delete " + std::to_string(count) + " files?";
    // The error does not name the path that failed.
    request.keepsGoing = true;
    for (const Value& path : request.arguments)
        request.removedPaths.push_back(*path.string());
    return request;
}

Request prepareUninstall(const Arguments& /*arguments*/) {
    Request request;
    request.question = "Remove all authorization rights of the helper?";
    return request;
}

int runPrepareUninstall(const Arguments& arguments) {
    if (const auto refusal = refusalToRemoveRights("prepare-uninstall")) return report(*refusal);
    return runOperation(*findCommand("prepare-uninstall"), arguments);
}

constexpr Option kYesOption[] = {kYes};
constexpr Option kBatchOptions[] = {
    {"-k,--keep-going", "", "go on with the next line after a failure"}, kYes};
constexpr Positional kBatchFile[] = {
    {"FILE", "the operations; standard input unless given", 0, 1, Completion::path}};
constexpr Positional kDescribedOperation[] = {
    {"OPERATION", "its code or its identifier", 0, 1, Completion::operation}};
constexpr Positional kDebugPositionals[] = {{"STATE", "on or off", 1, 1, Completion::onOrOff}};
constexpr Option kStatusOptions[] = {
    {"--rights", "", "show for each operation whether you may, must authenticate or may not"}};
constexpr Option kLogOptions[] = {
    {"--since", "TIME",
     "only entries since: a date, a time, today, yesterday, or 2h for two hours ago"},
    {"--user", "NAME", "only the operations of this user, by name or number", false,
     Completion::user},
    {"--operation", "OPERATION", "only this operation", false, Completion::operation},
    {"--limit", "COUNT", "only the newest COUNT entries"},
    {"-D,--directory", "FOLDER", "read the journal files there instead of this machine's", false,
     Completion::directory},
};
constexpr Positional kPathsPositional[] = {
    {"PATH", "what to delete, a folder after its contents", 1, kUnlimited, Completion::path}};

const Command kCommands[] = {
    {"version", "Shows the helper's version", "", {}, {}, nullptr, View::nothing, runVersion},
    {"status",
     "Shows whether the helper answers, and lets you ask it",
     "The exit code says the same: 0, 3 not reachable, 4 not authorized. A rule of the machine's\n"
     "authority may decide otherwise than --rights says for single objects.",
     kStatusOptions,
     {},
     nullptr,
     View::nothing,
     runStatus},
    {"list",
     "Lists the operations of the helper, or describes one",
     "A description has the arguments as they go over the wire, the feedback, the answer, the\n"
     "errors and an example. Does not need the helper.",
     {},
     kDescribedOperation,
     nullptr,
     View::nothing,
     runList},
    {"log",
     "Lists which operations were granted to whom",
     "Reads the audit from the journal, the oldest first. Root and the members of the groups\n"
     "systemd-journal and adm see it. With --json each line has time, uid, user, pid, executable,\n"
     "operation, outcome (0 is success), domain and objects; all but objects are texts.",
     kLogOptions,
     {},
     nullptr,
     View::nothing,
     runLog},
    {"nop", "", "", {}, {}, noArguments},
    {"discard-auth", "", "The next operation asks again.", {}, {}, noArguments},
    {"debug",
     "Switches the helper's debug mode",
     "In debug mode the helper logs its debug lines at error priority, until it ends.",
     {},
     kDebugPositionals,
     nullptr,
     View::nothing,
     runDebug},
    {"batch", "Performs the operations of a file, one a line, over one connection",
     "A line is the command of an operation with its options and arguments, or 'call'; words with\n"
     "blanks stand in quotes, a line that begins with # is passed over. All lines are checked\n"
     "before the first is performed. Stops at the first failure unless told to keep going. What\n"
     "is granted for one line holds for the others of the same operation. With --json each line\n"
     "ends with {\"line\", \"command\", \"exitCode\"}.",
     kBatchOptions, kBatchFile, nullptr, View::nothing, runBatch},
    {"install-rights",
     "Defines the rights of all operations at the machine's authority",
     "Needs root. A right that exists keeps its definition.",
     {},
     {},
     nullptr,
     View::nothing,
     runInstallRights},
    {"remove-rights",
     "Removes the rights of all operations",
     "Needs root. Rights that belong to a package stay: they go with it. A rule in\n"
     "/etc/polkit-1/rules.d denies an operation.",
     {},
     {},
     nullptr,
     View::nothing,
     runRemoveRights},
    {"prepare-uninstall",
     "",
     "Rights that belong to a package stay: they go with it. Asks first.",
     kYesOption,
     {},
     prepareUninstall,
     View::nothing,
     runPrepareUninstall},
    {"uninstall",
     "Removes the rights and the files of the helper",
     "Stops before anything is done when the user may not do all of it, and when the files belong\n"
     "to a package. Settings that were changed stay as they are.",
     kYesOption,
     {},
     nullptr,
     View::nothing,
     runUninstall},
    {"delete-files", "", "Goes on after a failure; the last failure is reported. Asks first.",
     kYesOption, kPathsPositional, deleteFiles},
};

}  // namespace

std::span<const Command> helperCommands() {
    return kCommands;
}

}  // namespace corvalen::cli
