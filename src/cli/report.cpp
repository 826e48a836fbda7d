// SPDX-License-Identifier: MIT
#include "cli/report.hpp"

#include <cerrno>
#include <corvalen/failure.hpp>

#include "cli/output.hpp"
#include "cli/text.hpp"
#include "operations/names.hpp"

namespace corvalen::cli {
namespace {

struct Advice {
    int errnoValue;
    /// What the name of the command begins with.
    std::string_view command;
    std::string_view text;
};

constexpr std::string_view kNoPropertyList = "The value must be the text of a property list.";

/// For errors that come without a suggestion; the first that fits.
constexpr Advice kAdvices[] = {
    {ENOENT, "modify-kernelsetting", "'sysctl -a' shows the variables that this kernel has."},
    {EISDIR, "modify-kernelsetting", "This is a group of variables: name one of them."},
    {EACCES, "modify-kernelsetting", "The kernel lets nobody write this variable."},
    {EINVAL, "modify-kernelsetting", "The kernel does not take this value for the variable."},
    {EINVAL, "modify-preferences", kNoPropertyList},
    {EINVAL, "modify-sysconf", kNoPropertyList},
    {EINVAL, "execute-utility",
     "Only the utilities that 'corvalenctl execute-utility --help' lists are run, by their names; "
     "lipo needs an application that has it."},
    {ENOENT, "search-", "The folder must exist, and must hold something."},
    {ENOENT, "", "Check the name: there is no such object."},
    {ENOTDIR, "", "Give a folder."},
    {EISDIR, "", "Give a file, not a folder."},
    {EEXIST, "", "Choose another name, or remove what is there first."},
    {EINVAL, "", "Check the values: the helper does not accept them."},
    {EPERM, "",
     "The system refuses the change, to the superuser too. A protection flag may be set: see "
     "'corvalenctl modify-protection --unlock'."},
    {EROFS, "", "The volume is read-only."},
    {ENOSPC, "", "Free some space on the volume."},
    {ESRCH, "", "There is no process with this number (any more)."},
    {EBUSY, "", "It is in use; try again later."},
    {ENOTSUP, "", "The file system, or the variable, does not support this."},
};

std::string_view adviceFor(std::string_view command, const ErrorRef& error) {
    switch (failureKind(error)) {
        case FailureKind::notReachable:
            return "The helper ended before it answered; its log says why.";
        case FailureKind::notAuthorized:
            return "An administrator may do this. See 'corvalenctl status' for the authority in "
                   "force.";
        case FailureKind::canceled:
            return "Nothing was changed.";
        case FailureKind::none:
        case FailureKind::operation:
            break;
    }
    const int value = hostErrno(error);
    for (const Advice& advice : kAdvices)
        if (advice.errnoValue == value && command.rfind(advice.command, 0) == 0) return advice.text;
    return {};
}

}  // namespace

std::string indentedLines(std::string_view text, std::size_t indent) {
    std::string out;
    while (true) {
        const std::size_t end = text.find('\n');
        out += escapedForTerminal(text.substr(0, end));
        if (end == std::string_view::npos) return out;
        out.append("\n").append(indent, ' ');
        text.remove_prefix(end + 1);
    }
}

std::string failureText(std::string_view command, std::string_view subject, const ErrorRef& error) {
    std::string text = std::string(command) + ": ";
    const std::string words = describeFailure(error);
    const bool isNamed = subject.substr(0, 1) == "/" && words.find(subject) != std::string::npos;
    if (!subject.empty() && !isNamed) text += escapedForTerminal(subject) + ": ";
    text += indentedLines(words);
    const std::string_view advice = adviceFor(command, error);
    if (!advice.empty() && error->localizedRecoverySuggestion() == nullptr)
        text.append("\n  ").append(advice);
    return text;
}

int reportFailure(std::string_view command, std::string_view subject, const ErrorRef& error) {
    printError(failureText(command, subject, error));
    return exitCodeOf(error);
}

int reportNoSession(std::string_view socketPath, const ErrorRef& error) {
    const std::string words = indentedLines(describeFailure(error));
    if (failureKind(error) == FailureKind::notReachable) {
        printError("the helper cannot be reached at " + escapedForTerminal(socketPath) + "\n  " +
                   words + "\n  Is it installed, and its socket unit started?  systemctl status " +
                   std::string(kServiceName) + ".socket");
        return kExitNotReachable;
    }
    printError("the helper answers, but refuses to register this process: " + words +
               "\n  It keeps 1,024 processes of one user at most: end some of yours, and ask "
               "again.");
    return kExitFailure;
}

ExitCode exitCodeOf(const ErrorRef& error) noexcept {
    switch (failureKind(error)) {
        case FailureKind::none:
            return kExitSuccess;
        case FailureKind::notReachable:
            return kExitNotReachable;
        case FailureKind::notAuthorized:
        case FailureKind::canceled:
            return kExitNotAuthorized;
        case FailureKind::operation:
            break;
    }
    return kExitFailure;
}

}  // namespace corvalen::cli
