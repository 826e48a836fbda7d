// SPDX-License-Identifier: MIT
#include "cli/other_programs.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <systemd/sd-login.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <corvalen/catalogue.hpp>
#include <cstdlib>
#include <string>
#include <string_view>

#include "cli/command_table.hpp"
#include "cli/report.hpp"
#include "corvalen/descriptor.hpp"
#include "foundation/borrowed_descriptor.hpp"

namespace corvalen::cli {
namespace {

constexpr int kNoSuchProgram = 127;  // sh(1), on either side of a connection
// -F ends when all fits, -R passes colours, -X leaves the text on the terminal (less(1)).
constexpr const char* kLessOptions = "FRX";

std::string textOfVariable(const char* name) {
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

bool runsElevated() {
    return std::getenv("SUDO_UID") != nullptr || std::getenv("PKEXEC_UID") != nullptr ||
           std::getenv("DOAS_USER") != nullptr || ::getuid() != ::geteuid();
}

/// Returns the shell command of the pager; empty for none.
std::string pagerProgram(const Arguments& arguments) {
    const std::string terminal = textOfVariable("TERM");
    const bool isWanted = !arguments.has("no-pager") && !arguments.has("json") &&
                          !terminal.empty() && terminal != "dumb";
    if (!isWanted || ::isatty(STDOUT_FILENO) != 1) return {};
    if (runsElevated()) return "less";
    const char* const chosen = std::getenv("PAGER");
    return chosen != nullptr ? chosen : "less";
}

bool fitsOnScreen(std::string_view text) {
    winsize size{};
    const bool isKnown = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0;
    return !isKnown || std::count(text.begin(), text.end(), '\n') < size.ws_row;
}

std::atomic<bool> pagerRuns{false};

[[noreturn]] void becomePager(const char* program, Descriptor input) {
    ::signal(SIGPIPE, SIG_DFL);
    ::signal(SIGINT, SIG_DFL);
    sigset_t none;
    ::sigemptyset(&none);
    ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
    (void)::dup2(input.get(), STDIN_FILENO);
    ::setenv("LESS", kLessOptions, 0);
    if (runsElevated()) ::setenv("LESSSECURE", "1", 1);
    ::execl("/bin/sh", "sh", "-c", program, nullptr);
    ::_exit(kNoSuchProgram);
}

/// Returns false if the pager could not be started.
bool show(std::string_view text, const std::string& program) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return false;
    UniqueFd reading(ends[0]);
    UniqueFd writing(ends[1]);
    // Ctrl-C goes to the pager alone; where a session waits for signals, it asks isPagerRunning().
    pagerRuns = true;
    const auto before = ::signal(SIGINT, SIG_IGN);
    const pid_t pager = ::fork();
    if (pager == 0) becomePager(program.c_str(), reading);
    reading.reset();
    if (pager > 0) (void)writeAll(writing, text);
    writing.reset();
    int status = 0;
    while (pager > 0 && ::waitpid(pager, &status, 0) < 0 && errno == EINTR) {
    }
    ::signal(SIGINT, before);
    pagerRuns = false;
    return pager > 0 && !(WIFEXITED(status) && WEXITSTATUS(status) == kNoSuchProgram);
}

}  // namespace

int writePaged(std::string_view text, const Arguments& arguments) {
    const std::string program = pagerProgram(arguments);
    if (!program.empty() && !fitsOnScreen(text) && show(text, program)) return kExitSuccess;
    return writeOutput(text);
}

bool isPagerRunning() noexcept {
    return pagerRuns;
}

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
    // It ends after the request: see PolkitConnection::cancelCheck.
    sigset_t blocked;
    ::sigemptyset(&blocked);
    for (const int signal : {SIGINT, SIGQUIT, SIGHUP})
        ::sigaddset(&blocked, signal);
    (void)::sigprocmask(SIG_SETMASK, &blocked, nullptr);
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

namespace {

constexpr int kSshFailed = 255;  // ssh(1)

std::string shellQuoted(const std::string& word) {
    std::string quoted = "'";
    for (const char letter : word)
        quoted.append(letter == '\'' ? "'\\''" : std::string(1, letter));
    return quoted + "'";
}

/// Whether all standard streams are a terminal. Prompts need one on the other machine, but it
/// merges both outputs and changes line ends, so a redirected stream gets none.
bool hasTerminal() {
    return ::isatty(STDIN_FILENO) == 1 && ::isatty(STDOUT_FILENO) == 1 &&
           ::isatty(STDERR_FILENO) == 1;
}

[[noreturn]] void becomeSsh(const RemoteRequest& request, const std::string& command) {
    ::signal(SIGINT, SIG_DFL);
    ::signal(SIGPIPE, SIG_DFL);
    const char* const terminal = hasTerminal() ? "-t" : "-T";
    ::execlp("ssh", "ssh", "-q", terminal, "--", request.host.c_str(), command.c_str(), nullptr);
    ::_exit(kNoSuchProgram);
}

/// Whether the word is -H or --remote; sets `value` if the word contains the host too.
bool isHostOption(std::string_view word, std::string* value) {
    for (const std::string_view lead : {"--remote=", "-H"}) {
        if (word.substr(0, lead.size()) != lead || word.size() == lead.size()) continue;
        *value = word.substr(lead.size());
        return true;
    }
    return word == "-H" || word == "--remote";
}

}  // namespace

RemoteRequest takeHost(const std::vector<std::string>& words) {
    RemoteRequest request;
    const Command* command = nullptr;
    bool isEnded = false;
    for (std::size_t i = 0; i < words.size(); ++i) {
        std::string value;
        const bool isHost = !isEnded && isHostOption(words[i], &value);
        if (isHost) {
            if (value.empty() && i + 1 < words.size()) value = words[++i];
            if (value.empty()) throw UsageError("--remote needs the name of a host");
            if (value.front() == '-') throw UsageError("'" + value + "' is no host");
            request.host = value;
            continue;
        }
        if (!isEnded && words[i] == "--json") request.wantsJson = true;
        if (command == nullptr) command = findCommand(words[i]);
        isEnded = isEnded || words[i] == "--" || (command != nullptr && command->passThrough);
        request.words.push_back(words[i]);
    }
    return request;
}

int runRemotely(const RemoteRequest& request) {
    std::string line = "corvalenctl";
    for (const std::string& word : request.words)
        line += " " + shellQuoted(word);
    // The terminal sends Ctrl-C to ssh too, which passes it on or ends.
    const auto before = ::signal(SIGINT, SIG_IGN);
    const pid_t ssh = ::fork();
    if (ssh == 0) becomeSsh(request, line);
    int status = 0;
    while (ssh > 0 && ::waitpid(ssh, &status, 0) < 0 && errno == EINTR) {
    }
    ::signal(SIGINT, before);
    if (ssh < 0) return report({{}, {}, "ssh cannot be started"});
    if (WIFSIGNALED(status)) return kExitSignal + WTERMSIG(status);
    const int code = WEXITSTATUS(status);
    if (code == kSshFailed)
        return report({{},
                       {},
                       "the host '" + request.host + "' cannot be reached",
                       "'ssh " + request.host + "' shows why.",
                       kExitNotReachable});
    if (code == kNoSuchProgram)
        return report({{},
                       {},
                       "there is no ssh here, or no corvalenctl on '" + request.host + "'",
                       {},
                       kExitNotReachable});
    return code;
}

}  // namespace corvalen::cli
