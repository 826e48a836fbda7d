// SPDX-License-Identifier: MIT
#include "cli/password_agent.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <systemd/sd-login.h>
#include <unistd.h>

#include <cerrno>
#include <corvalen/catalogue.hpp>
#include <cstdlib>
#include <string_view>

#include "corvalen/descriptor.hpp"

namespace corvalen::cli {
namespace {

constexpr const char* kAgentProgram = "/usr/bin/pkttyagent";
/// Long enough for the bus to start polkit first.
constexpr int kLongestStartMilliseconds = 10'000;

/// Whether this process is in the foreground of its terminal; one in the background that reads is
/// stopped.
bool ownsTerminal() {
    for (const int descriptor : {STDIN_FILENO, STDERR_FILENO})
        if (::isatty(descriptor) == 1) return ::tcgetpgrp(descriptor) == ::getpgrp();
    return false;
}

PasswordPrompt promptFor(const OperationInfo& operation, const Arguments& arguments) {
    if (operation.policy == OperationPolicy::anybody || ::geteuid() == 0)
        return PasswordPrompt::notNeeded;
    if (arguments.has("no-ask-password")) return PasswordPrompt::switchedOff;
    return ownsTerminal() ? PasswordPrompt::onThisTerminal : PasswordPrompt::noTerminal;
}

/// Whether polkit finds a session: that of the process, or else the display of its user.
bool isInSession() {
    return ::sd_pid_get_session(0, nullptr) >= 0 || ::sd_uid_get_display(::getuid(), nullptr) >= 0;
}

/// Runs between fork(2) and execve(2). The process has threads, so only async-signal-safe calls.
[[noreturn]] void becomeAgent(pid_t parent, int notify, const char* const* arguments) noexcept {
    (void)::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent) ::_exit(1);
    ::signal(SIGPIPE, SIG_DFL);
    sigset_t none;
    ::sigemptyset(&none);
    (void)::sigprocmask(SIG_SETMASK, &none, nullptr);
    // The agent prompts on /dev/tty. Its error messages, such as a missing polkit, are dropped.
    const int nowhere = ::open("/dev/null", O_RDWR);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        (void)::dup2(nowhere, stream);
    (void)::fcntl(notify, F_SETFD, 0);
    ::execv(kAgentProgram, const_cast<char* const*>(arguments));
    ::_exit(1);
}

}  // namespace

PasswordAgent::PasswordAgent(const OperationInfo& operation, const Arguments& arguments)
    : _prompt(promptFor(operation, arguments)) {
    int ends[2];
    if (_prompt != PasswordPrompt::onThisTerminal || ::pipe2(ends, O_CLOEXEC) != 0) return;
    const UniqueFd registered(ends[0]);
    UniqueFd notify(ends[1]);
    const std::string subject = std::to_string(::getpid());
    const std::string notifyNumber = std::to_string(notify.get());
    // With --fallback an agent of the session takes precedence. Outside of sessions polkit ignores
    // fallback agents.
    const char* const inSession[] = {kAgentProgram, "--notify-fd",   notifyNumber.c_str(),
                                     "--process",   subject.c_str(), "--fallback",
                                     nullptr};
    const char* const alone[] = {kAgentProgram, "--notify-fd",   notifyNumber.c_str(),
                                 "--process",   subject.c_str(), nullptr};
    const char* const* agentArguments = isInSession() ? inSession : alone;
    const pid_t parent = ::getpid();
    _process = ::fork();
    if (_process == 0) becomeAgent(parent, notify.get(), agentArguments);
    notify.reset();
    if (_process < 0) return;
    // The agent closes its end once it is registered or has failed.
    pollfd closed{registered.get(), 0, 0};
    while (::poll(&closed, 1, kLongestStartMilliseconds) < 0 && errno == EINTR) {
    }
}

bool PasswordAgent::isOnDesktop() {
    char* session = nullptr;
    if (::sd_pid_get_session(0, &session) < 0 && ::sd_uid_get_display(::getuid(), &session) < 0)
        return false;
    char* type = nullptr;
    const bool isKnown = ::sd_session_get_type(session, &type) >= 0;
    const std::string_view name = isKnown ? type : "";
    const bool hasScreen = name == "x11" || name == "wayland" || name == "mir";
    std::free(type);
    std::free(session);
    return hasScreen;
}

PasswordAgent::~PasswordAgent() {
    if (_process <= 0) return;
    (void)::kill(_process, SIGTERM);
    while (::waitpid(_process, nullptr, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace corvalen::cli
