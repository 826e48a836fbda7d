// SPDX-License-Identifier: MIT
#include "cli/command_table.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <corvalen/catalogue.hpp>
#include <cstdio>

#include "cli/operation_runner.hpp"
#include "cli/other_programs.hpp"
#include "cli/output.hpp"
#include "cli/report.hpp"
#include "cli/session.hpp"
#include "cli/text.hpp"
#include "foundation/path.hpp"
#include "operations/names.hpp"
#include "operations/privileged_operation_set.hpp"
#include "platform/authorization/authorization.hpp"

namespace corvalen::cli {
namespace {

constexpr std::string_view kPrefix = CORVALEN_PREFIX;
constexpr std::string_view kLibexecDirectory = CORVALEN_LIBEXEC_DIRECTORY;
constexpr std::string_view kManualDirectory = CORVALEN_MANUAL_DIRECTORY;
constexpr std::string_view kPolicies = "/share/polkit-1/actions/net.corvalen.kvx.";
constexpr std::string_view kDeleteFiles = "delete-files";
constexpr std::string_view kPrepareUninstall = "prepare-uninstall";

/// Returns the package that owns a file; empty without one or without a package manager.
std::string packageOf(const std::string& path) {
    for (const std::string_view question :
         {"dpkg-query --search", "rpm --query --queryformat '%{NAME}:' --file"}) {
        const std::string command = std::string(question) + " '" + path + "' 2>/dev/null";
        std::FILE* const answer = ::popen(command.c_str(), "re");
        if (answer == nullptr) continue;
        char line[256] = "";
        const bool answered = std::fgets(line, sizeof line, answer) != nullptr;
        if (::pclose(answer) != 0 || !answered) continue;
        const std::string package = line;
        return package.substr(0, package.find(':'));
    }
    return {};
}

bool exists(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

std::string helperProgram() {
    return std::string(kLibexecDirectory).append("/").append(kServiceName);
}

/// Returns the installed files of the daemon that exist. The program comes last: while it exists,
/// the command can be repeated.
std::vector<std::string> installedFiles() {
    const std::string name(kServiceName);
    const std::string prefix(kPrefix);
    std::vector<std::string> files = {
        "/etc/systemd/system/sockets.target.wants/" + name + ".socket",
        prefix + "/lib/systemd/system/" + name + ".socket",
        prefix + "/lib/systemd/system/" + name + ".service",
        prefix + "/lib/systemd/catalog/corvalen.catalog",
        std::string(kManualDirectory) + "/man8/" + name + ".8",
        std::string(kServiceSocketPath),
        std::string(kServiceSocketPath) + ".lock",
    };
    for (const OperationInfo& operation : operationCatalogue())
        files.push_back(prefix +
                        std::string(kPolicies).append(operation.identifier).append(".policy"));
    files.push_back(helperProgram());
    files.erase(std::remove_if(files.begin(), files.end(),
                               [](const std::string& file) { return !exists(file); }),
                files.end());
    return files;
}

void print(const std::string& line) {
    const std::string shown =
        reportsAsJson() ? "{\"message\":" + jsonString(line) + "}" : escapedForTerminal(line);
    Output(kStandardOutput).write(shown + "\n");
}

/// Prints one line for each file, but a single one for all policies.
void printFiles(const std::string& lead, const std::vector<std::string>& files) {
    std::size_t policies = 0;
    for (const std::string& file : files)
        if (pathExtension(file) == "policy")
            ++policies;
        else
            print(lead + file);
    if (policies > 0)
        print(lead + std::string(kPrefix).append(kPolicies) + "*.policy (" +
              std::to_string(policies) + ")");
}

bool isWanted(const std::vector<std::string>& files, const Arguments& arguments) {
    if (arguments.has("yes")) return true;
    requireTerminal();
    print("These files are the helper's:");
    printFiles("  ", files);
    return confirm("Delete them, and remove all authorization rights of the helper?");
}

int reportRemoved(const std::vector<std::string>& files) {
    std::vector<std::string> removed;
    for (const std::string& file : files)
        if (exists(file))
            report({"uninstall", file, "could not be removed"});
        else
            removed.push_back(file);
    printFiles("removed ", removed);
    return removed.size() == files.size() ? kExitSuccess : kExitFailure;
}

int reportStep(std::string_view operation, const ErrorRef& error, const PasswordAgent& agent) {
    Failure failure = failureOf(operation, {}, error, agent.prompt());
    failure.command.insert(0, "uninstall: ");
    return report(failure);
}

int uninstall(Client& client, const std::vector<std::string>& files, const Arguments& arguments) {
    const PasswordAgent agent(*findOperation(kDeleteFiles), arguments);
    // prepare-uninstall removes the right to delete files too. Deleting no file beforehand obtains
    // the grant, which this authorization keeps.
    if (const ErrorRef error = client.perform(kDeleteFiles, {}).error)
        return reportStep(kDeleteFiles, error, agent);
    if (const ErrorRef error = client.perform(kPrepareUninstall, {}).error)
        return reportStep(kPrepareUninstall, error, agent);
    print("removed the authorization rights");
    Array paths;
    for (const std::string& file : files)
        if (exists(file)) paths.emplace_back(file);
    const ErrorRef error = client.perform(kDeleteFiles, paths).error;
    const int code = reportRemoved(files);
    if (error) return std::max<int>(code, reportStep(kDeleteFiles, error, agent));
    return code;
}

}  // namespace

std::optional<Failure> refusalToRemoveRights(std::string_view command) {
    const QRLPrivilegedOperationSetKVX set;
    for (const OperationInfo& operation : operationCatalogue()) {
        const auto right =
            set.authorizationRightNameForOperationWithIdentifier(operation.identifier);
        if (!right) continue;
        const std::string file =
            std::string(kPolkitActionsDirectory).append("/").append(*right).append(".policy");
        if (!exists(file)) continue;
        const std::string package = packageOf(file);
        if (package.empty()) return std::nullopt;
        return Failure{std::string(command),
                       {},
                       "the rights belong to the package '" + package + "'",
                       "They go with it, as in 'apt remove " + package +
                           "'. A rule in /etc/polkit-1/rules.d denies an operation."};
    }
    return std::nullopt;
}

int runUninstall(const Arguments& arguments) {
    const std::string program = helperProgram();
    if (!exists(program))
        return report({"uninstall", {}, "the helper is not installed: there is no " + program});
    if (const std::string package = packageOf(program); !package.empty())
        return report({"uninstall",
                       {},
                       "the helper belongs to the package '" + package + "'",
                       "Remove it with the package manager, as in 'apt remove " + package + "'."});
    const std::vector<std::string> files = installedFiles();
    if (!isWanted(files, arguments)) return report({"uninstall", {}, "nothing was done"});
    const int code =
        withSession(arguments, [&](Client& client) { return uninstall(client, files, arguments); });
    if (code != kExitSuccess) return code;
    const std::string store(kStoreDirectory);
    if (exists(store)) print("kept what the machine was set to, in " + store);
    if (exists("/run/systemd/system"))
        print("the service manager still knows the units: systemctl stop " +
              std::string(kServiceName) + ".socket, and systemctl daemon-reload");
    return code;
}

}  // namespace corvalen::cli
