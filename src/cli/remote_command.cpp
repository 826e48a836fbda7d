// SPDX-License-Identifier: MIT
#include "cli/remote_command.hpp"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "cli/command_table.hpp"
#include "cli/report.hpp"

namespace corvalen::cli {
namespace {

constexpr int kSshFailed = 255;      // ssh(1)
constexpr int kNoSuchProgram = 127;  // sh(1), on either side

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
