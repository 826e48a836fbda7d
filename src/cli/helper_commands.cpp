// SPDX-License-Identifier: MIT
// Commands for the daemon itself: its status, its rights and its log.
#include <fmt/format.h>
#include <unistd.h>

#include <corvalen/catalogue.hpp>
#include <corvalen/failure.hpp>
#include <corvalen/rights.hpp>

#include "cli/command_table.hpp"
#include "cli/operation_runner.hpp"
#include "cli/other_programs.hpp"
#include "cli/report.hpp"
#include "cli/session.hpp"
#include "cli/text.hpp"
#include "operations/names.hpp"
#include "operations/operation_descriptions.hpp"
#include "operations/privileged_operation_set.hpp"

namespace corvalen::cli {
namespace {

struct HelperStatus {
    std::string socketPath;
    std::string authority;
    std::string version;
    ErrorRef error;
};

std::string statusText(const HelperStatus& status, bool asJson) {
    const bool reachable = !status.version.empty();
    if (asJson) {
        std::string out = "{";
        appendJsonText(out, "socket", status.socketPath);
        out += ",\"authority\":" + jsonString(status.authority);
        out += fmt::format(",\"reachable\":{},\"usable\":{}", reachable, status.error == nullptr);
        if (reachable) out += ",\"version\":" + jsonString(status.version);
        if (status.error) out += ",\"error\":" + jsonValue(Value(status.error));
        return out + "}\n";
    }
    std::string usable = "yes";
    if (status.error) {
        const Failure failure = failureOf("nop", {}, status.error);
        usable = "no: " + indentedLines(failure.message, 12);
        if (!failure.advice.empty()) usable += "\n            " + failure.advice;
    }
    return fmt::format(
        "socket      {}\nreachable   {}\nversion     {}\nauthority   {}\nauthorized  {}\n",
        escapedForTerminal(status.socketPath), reachable ? "yes" : "no",
        reachable ? escapedForTerminal(status.version) : "-", escapedForTerminal(status.authority),
        usable);
}

struct OutlookText {
    std::string_view text;
    std::string_view json;
};

OutlookText textOf(RightOutlook outlook) {
    switch (outlook) {
        case RightOutlook::granted:
            return {"may", "may"};
        case RightOutlook::needsAuthentication:
            return {"must authenticate", "must-authenticate"};
        case RightOutlook::denied:
            return {"may not", "may-not"};
        case RightOutlook::unknown:
            break;
    }
    return {"unknown", "unknown"};
}

std::string rightsText(AuthorizationService& authority, bool asJson) {
    std::string text = asJson ? "" : fmt::format("\n{:21}  {}\n", "OPERATION", "YOU");
    bool isComplete = true;
    for (const OperationInfo& operation : operationCatalogue()) {
        const RightOutlook outlook = outlookOfOperation(authority, operation.identifier);
        isComplete = isComplete && outlook != RightOutlook::unknown;
        const OutlookText shown = textOf(outlook);
        text += asJson ? fmt::format("{{\"operation\":{},\"you\":{}}}\n",
                                     jsonString(operation.identifier), jsonString(shown.json))
                       : fmt::format("{:21}  {}\n", operation.identifier, shown.text);
    }
    if (!asJson && !isComplete)
        text += "\nOnly root can read the definitions of this machine's authority.\n";
    return text;
}

}  // namespace

std::unique_ptr<AuthorizationService> authorityOfThisMachine() {
    return makeSystemAuthorizationService(kStoreDirectory,
                                          QRLPrivilegedOperationSetKVX().rightDefinitions());
}

RightOutlook outlookOfOperation(AuthorizationService& authority, std::string_view operation) {
    const auto right =
        QRLPrivilegedOperationSetKVX().authorizationRightNameForOperationWithIdentifier(operation);
    return right ? authority.outlook(*right) : RightOutlook::denied;
}

int runStatus(const Arguments& arguments) {
    std::string text;
    const int code = withSession(arguments, [&](Client& client) {
        const auto authority = authorityOfThisMachine();
        HelperStatus status{socketPathOf(arguments), authority->description(), {}, nullptr};
        status.version = client.version(&status.error);
        if (!status.error) status.error = client.perform("nop", {}).error;
        const bool asJson = arguments.has("json");
        text = statusText(status, asJson);
        if (arguments.has("rights")) text += rightsText(*authority, asJson);
        return static_cast<int>(exitCodeOf(status.error));
    });
    if (text.empty()) return code;
    // The session has ended: it would take the pager's Ctrl-C.
    const int written = writePaged(text, arguments);
    return written != kExitSuccess ? written : code;
}

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
    const Command& command = *findCommand("prepare-uninstall");
    return runOperation(command, arguments, checkedRequest(command, arguments));
}

constexpr Option kYesOption[] = {kYes};
constexpr Option kBatchOptions[] = {
    {"-k,--keep-going", "", "continue with the next line after a failure"}, kYes};
constexpr Positional kBatchFile[] = {
    {"FILE", "the operations; standard input by default", 0, 1, Completion::path}};
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
    {"PATH", "the objects; a folder must follow its contents", 1, kUnlimited, Completion::path}};

const Command kHelperCommands[] = {
    {"version", "Shows the helper's version", "", {}, {}, nullptr, View::nothing, runVersion},
    {"status",
     "Shows whether the helper answers and accepts your requests",
     "The exit code is 0, 3 if the helper is not reachable, or 4 if you are not authorized. For\n"
     "single objects, rules of the machine's authority may differ from what --rights shows.",
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
    {"discard-auth", "", "The next operation needs a new authorization.", {}, {}, noArguments},
    {"debug",
     "Switches the helper's debug mode",
     "In debug mode the helper logs its debug lines at error priority, until it ends.",
     {},
     kDebugPositionals,
     nullptr,
     View::nothing,
     runDebug},
    {"batch", "Performs the operations of a file, one a line, over one connection",
     "A line is the command of an operation with its options and arguments, or 'call'. Put words\n"
     "with blanks in quotes. Skips lines that begin with #. Checks all lines before it performs\n"
     "the first. Stops at the first failure without --keep-going. A grant for one line holds for\n"
     "the others of the same operation. With --json each line ends with {\"line\", \"command\",\n"
     "\"exitCode\"}.",
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
     "Needs root. Keeps the rights of a package, which removes them itself. To deny an operation,\n"
     "write a rule in /etc/polkit-1/rules.d.",
     {},
     {},
     nullptr,
     View::nothing,
     runRemoveRights},
    {"prepare-uninstall",
     "",
     "Keeps the rights of a package, which removes them itself. Asks first.",
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
    return kHelperCommands;
}

}  // namespace corvalen::cli
