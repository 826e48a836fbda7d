// SPDX-License-Identifier: MIT
#include "cli/report.hpp"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <corvalen/catalogue.hpp>
#include <corvalen/failure.hpp>
#include <corvalen/rights.hpp>
#include <cstring>
#include <utility>

#include "cli/output.hpp"
#include "cli/text.hpp"
#include "operations/names.hpp"

namespace corvalen::cli {
namespace {

constexpr std::int64_t kInteractionNotAllowed = -60007;
constexpr std::int64_t kInternal = -60008;

bool isStatus(const ErrorRef& error, std::int64_t status) {
    return error->domain() == kOSStatusErrorDomain && error->code() == status;
}

bool isBarePermissionError(const ErrorRef& error) {
    return error && error->domain() == kPosixErrorDomain && error->userInfo() == nullptr &&
           errnoFromPosixCode(error->code()) == EPERM;
}

std::string adviceForPrompt(PasswordPrompt prompt) {
    switch (prompt) {
        case PasswordPrompt::switchedOff:
            return "Leave out --no-ask-password: an administrator's password is then asked for on "
                   "this terminal.";
        case PasswordPrompt::noTerminal:
            return "Run it on a terminal, where an administrator's password can be typed, or as "
                   "root.";
        case PasswordPrompt::onThisTerminal:
        case PasswordPrompt::notNeeded:
            break;
    }
    return "Run it as root, or let an administrator authenticate.";
}

DenialText refusal(const Denial& denial) {
    if (!denial.hasPolkit)
        return {"not authorized: only root may do this",
                "No polkit answers on this machine that could ask for a password: run it as root."};
    if (denial.prompt == PasswordPrompt::onThisTerminal)
        return {"not authorized: the password was not accepted, or a rule denies the operation",
                "Give an administrator's password. 'pkaction --verbose --action-id " +
                    denial.right + "' shows who may."};
    return {"not authorized: polkit does not allow it to this user without a password",
            adviceForPrompt(denial.prompt)};
}

struct Advice {
    int errnoValue;
    /// Prefix of the command's name.
    std::string_view command;
    std::string_view text;
};

constexpr std::string_view kNoPropertyList = "The value must be the text of a property list.";

/// For errors without a recovery suggestion; the first match counts.
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
        case FailureKind::canceled:
            return "Nothing was changed.";
        case FailureKind::notAuthorized:
        case FailureKind::none:
        case FailureKind::operation:
            break;
    }
    const int value = hostErrno(error);
    for (const Advice& advice : kAdvices)
        if (advice.errnoValue == value && command.rfind(advice.command, 0) == 0) return advice.text;
    return {};
}

/// Returns the "kind" of a failure in JSON.
std::string_view kindOf(int exitCode) noexcept {
    if (exitCode > kExitSignal) return "interrupted";
    if (exitCode == kExitUsage) return "usage";
    if (exitCode == kExitNotReachable) return "not-reachable";
    return exitCode == kExitNotAuthorized ? "not-authorized" : "failed";
}

bool printsJson = false;

}  // namespace

DenialText denialText(const Denial& denial) {
    if (denial.isRightMissing)
        return {"not authorized: the right '" + denial.right + "' is not defined on this machine",
                "Define the rights as root: corvalenctl install-rights"};
    if (isStatus(denial.error, kInteractionNotAllowed))
        return {"not authorized: somebody has to authenticate, and nobody can be asked",
                adviceForPrompt(denial.prompt)};
    if (isStatus(denial.error, kInternal))
        return {"not authorized: the authority of this machine could not decide",
                "'corvalenctl status' shows which authority it is; see its log, as in 'journalctl "
                "-u polkit'."};
    const bool isRefusal = isBarePermissionError(denial.error);
    if (isRefusal && !denial.isRoot) return refusal(denial);
    return {describeFailure(denial.error),
            "'corvalenctl status' shows the authority that decides on this machine."};
}

std::optional<Denial> examineDenial(std::string_view operation, const ErrorRef& error,
                                    PasswordPrompt prompt) {
    const bool isDenied = failureKind(error) == FailureKind::notAuthorized;
    const bool canBeDenial = isDenied || isBarePermissionError(error);
    if (!canBeDenial || findOperation(operation) == nullptr) return std::nullopt;
    Denial denial{{}, error, prompt, ::geteuid() == 0};
    const RightState state = rightState(operation, &denial.right);
    denial.hasPolkit = state != RightState::builtIn;
    denial.isRightMissing = state == RightState::missing;
    if (!isDenied && !denial.isRightMissing) return std::nullopt;
    return denial;
}

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

Failure failureOf(std::string_view command, std::string_view subject, const ErrorRef& error,
                  PasswordPrompt prompt) {
    Failure failure{std::string(command), std::string(subject), {}, {}, exitCodeOf(error), error};
    if (const auto denial = examineDenial(command, error, prompt)) {
        DenialText text = denialText(*denial);
        failure.message.swap(text.message);
        failure.advice.swap(text.advice);
        failure.exitCode = kExitNotAuthorized;
        return failure;
    }
    failure.message = describeFailure(error);
    if (error->localizedRecoverySuggestion() == nullptr) failure.advice = adviceFor(command, error);
    return failure;
}

std::string failureText(const Failure& failure) {
    std::string text;
    if (!failure.command.empty()) text = failure.command + ": ";
    const bool isNamed = failure.subject.substr(0, 1) == "/" &&
                         failure.message.find(failure.subject) != std::string::npos;
    if (!failure.subject.empty() && !isNamed) text += escapedForTerminal(failure.subject) + ": ";
    text += indentedLines(failure.message);
    if (!failure.advice.empty()) text += "\n  " + indentedLines(failure.advice);
    return text;
}

std::string failureJson(const Failure& failure) {
    std::string out = "{\"error\":{\"kind\":" + jsonString(kindOf(failure.exitCode));
    out += ",\"exitCode\":" + std::to_string(failure.exitCode);
    const std::pair<std::string_view, std::string_view> texts[] = {{"command", failure.command},
                                                                   {"subject", failure.subject},
                                                                   {"message", failure.message},
                                                                   {"advice", failure.advice}};
    for (const auto& [name, text] : texts) {
        if (text.empty()) continue;
        out += ',';
        appendJsonText(out, name, text);
    }
    if (failure.objectCount) out += ",\"objectCount\":" + std::to_string(*failure.objectCount);
    if (failure.error) out += ",\"cause\":" + jsonValue(Value(failure.error));
    return out + "}}";
}

void reportAsJson() {
    printsJson = true;
}

bool reportsAsJson() noexcept {
    return printsJson;
}

int report(const Failure& failure) {
    if (printsJson)
        Output(kStandardError).write(failureJson(failure) + "\n");
    else
        printError(failureText(failure));
    return failure.exitCode;
}

int reportNoSession(std::string_view socketPath, const ErrorRef& error) {
    Failure failure;
    failure.error = error;
    if (failureKind(error) == FailureKind::notReachable) {
        failure.message = "the helper cannot be reached at " + std::string(socketPath) + "\n" +
                          describeFailure(error);
        failure.advice = "Is it installed, and its socket unit started?  systemctl status " +
                         std::string(kServiceName) + ".socket";
        failure.exitCode = kExitNotReachable;
        return report(failure);
    }
    failure.message =
        "the helper answers, but refuses to register this process: " + describeFailure(error);
    failure.advice =
        "It keeps 1,024 processes of one user at most: end some of yours, and ask again.";
    return report(failure);
}

int reportOutputFailure(int errnoValue) {
    // A reader such as head(1) leaves on purpose.
    if (errnoValue == EPIPE) return kExitSignal + SIGPIPE;
    return report({{}, {}, std::string("standard output: ") + std::strerror(errnoValue)});
}

int writeOutput(std::string_view text) {
    Output output(kStandardOutput);
    output.write(text);
    return output.finish() ? kExitSuccess : reportOutputFailure(output.failure());
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
