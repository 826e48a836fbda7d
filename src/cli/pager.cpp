// SPDX-License-Identifier: MIT
#include "cli/pager.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>

#include "cli/report.hpp"
#include "corvalen/descriptor.hpp"
#include "foundation/write_all.hpp"

namespace corvalen::cli {
namespace {

constexpr int kNoSuchProgram = 127;  // sh(1)
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

[[noreturn]] void becomePager(const char* program, int input) {
    ::signal(SIGPIPE, SIG_DFL);
    ::signal(SIGINT, SIG_DFL);
    (void)::dup2(input, STDIN_FILENO);
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
    // Ctrl-C goes to the pager alone.
    const auto before = ::signal(SIGINT, SIG_IGN);
    const pid_t pager = ::fork();
    if (pager == 0) becomePager(program.c_str(), reading.get());
    reading.reset();
    if (pager > 0) (void)writeAll(writing.get(), text);
    writing.reset();
    int status = 0;
    while (pager > 0 && ::waitpid(pager, &status, 0) < 0 && errno == EINTR) {
    }
    ::signal(SIGINT, before);
    return pager > 0 && !(WIFEXITED(status) && WEXITSTATUS(status) == kNoSuchProgram);
}

}  // namespace

int writePaged(std::string_view text, const Arguments& arguments) {
    const std::string program = pagerProgram(arguments);
    if (!program.empty() && !fitsOnScreen(text) && show(text, program)) return kExitSuccess;
    return writeOutput(text);
}

}  // namespace corvalen::cli
