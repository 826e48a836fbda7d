// SPDX-License-Identifier: MIT
// The built program and the built daemon on a terminal of an ordinary user, with the real polkit.
#include <gmock/gmock.h>
#include <pty.h>
#include <termios.h>

#include <corvalen/client.hpp>
#include <filesystem>
#include <functional>
#include <future>
#include <optional>
#include <regex>
#include <sstream>

#include "cli/session.hpp"
#include "operations/names.hpp"
#include "platform/polkit_machine.hpp"
#include "support/activator.hpp"
#include "support/golden.hpp"

namespace corvalen::cli {
namespace {

using polkit_test::Machine;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kPasswordPrompt = "Password: ";

/// The machine's only administrator; see administrator.sh.
constexpr uid_t kAdministrator = 61234;

struct Outcome {
    int status = -1;
    std::string screen;
};

/// What somebody types when the text is seen.
struct Answer {
    std::string seen;
    std::string typed;
    std::function<void()> done = {};
};

/// A command of a transcript, and what it says of the screen.
struct Line {
    explicit Line(const std::string& row) {
        for (const std::string& field : test::fieldsOf(row))
            if (const auto arrow = field.find("-> "); words.empty())
                words = field;
            else if (arrow != field.npos)
                answers.push_back({field.substr(0, arrow), field.substr(arrow + 3)});
            else
                shown.push_back(field);
    }
    void expectShown(const std::string& text) const {
        // Columns and processes differ between machines.
        const std::string plain =
            std::regex_replace(std::regex_replace(text, std::regex(" +"), " "),
                               std::regex("[0-9]+ corvalenctl"), "PID corvalenctl");
        for (const std::string& part : shown) {
            const bool isAbsent = part.starts_with("not ");
            EXPECT_EQ(plain.find(part.substr(isAbsent ? 4 : 0)) == plain.npos, isAbsent)
                << words << ": " << part << ": " << text;
        }
    }

    std::string words;
    std::vector<Answer> answers;
    std::vector<std::string> shown;
};

std::string resultOf(const Outcome& outcome) {
    int passwords = 0;
    for (std::size_t at = 0; (at = outcome.screen.find(kPasswordPrompt, at)) != std::string::npos;
         ++at)
        ++passwords;
    return "= " + std::to_string(outcome.status) +
           (passwords > 0 ? ", passwords " + std::to_string(passwords) : "") + "\n";
}

void expectNoProgressInPrompt(const std::string& screen) {
    const std::size_t begin = screen.find("AUTHENTICATING");
    const std::size_t end = screen.find('\n', screen.find(kPasswordPrompt, begin));
    if (end == std::string::npos) return;
    EXPECT_THAT(screen.substr(begin, end - begin), Not(HasSubstr("\033[K")));
}

class TerminalTest : public testing::Test {
  protected:
    void SetUp() override {
        if (!Machine::isPossible()) GTEST_SKIP() << "needs root, dbus-daemon, polkitd, pkttyagent";
        _machine = std::make_unique<Machine>();
        ASSERT_TRUE(_machine->isReady && runScript("administrator.sh"));
        // The user may be unable to reach the build directory, below /root for instance.
        std::filesystem::copy(CORVALENCTL_PATH, "/run/corvalenctl");
        std::filesystem::copy(CORVALEN_CLIENT_LIBRARY, "/run");
        startHelper();
        ASSERT_EQ(asRoot("install-rights"), 0);
        // polkit sees the rights some time after they were defined.
        ASSERT_TRUE(test::eventually([] { return asRoot("inspect-fileobject /") == 0; }));
    }
    static bool runScript(const std::string& name) {
        return test::shell("sh '" + test::goldenPath(name) + "'");
    }
    void startHelper() {
        _activator.emplace(CORVALEN_HELPER_PROGRAM, std::string(kServiceSocketPath),
                           std::string(kServiceName), "/run/log");
    }

    /// The exit code of a command without a terminal; what it writes is in /run/output.
    static int asRoot(const std::string& words) {
        const std::string command =
            "PATH=/run/bin:$PATH /run/corvalenctl " + words + " > /run/output 2>&1 </dev/null";
        return WEXITSTATUS(std::system(command.c_str()));
    }

    /// The agent flushes what was typed before it turned the echo off.
    static void waitUntilHidden(int terminal) {
        const auto isHidden = [terminal] {
            termios state{};
            return ::tcgetattr(terminal, &state) == 0 && (state.c_lflag & ECHO) == 0;
        };
        EXPECT_TRUE(test::eventually(isHidden)) << "the agent did not turn the echo off";
    }

    /// What a user does on a terminal; each answer is given every time.
    static Outcome onTerminal(const std::string& words, const std::vector<Answer>& answers,
                              uid_t user = kAdministrator) {
        const std::string command =
            "unset SUDO_UID; exec env TERM=xterm LD_LIBRARY_PATH=/run PATH=/run/bin:$PATH "
            "PAGER='sed s/^/paged:/; test ! -e /run/pager || . /run/pager' /run/corvalenctl " +
            words;
        int terminal = -1;
        winsize size{24, 80, 0, 0};
        const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, &size);
        if (pid == 0) {
            if (::setresgid(user, user, user) == 0 && ::setresuid(user, user, user) == 0)
                ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            ::_exit(1);
        }
        const UniqueFd keeper(terminal);
        Outcome outcome;
        std::size_t answered = 0;
        char buffer[4096];
        const auto takeOutput = [&] {
            const ssize_t got = ::read(terminal, buffer, sizeof buffer);
            if (got > 0) outcome.screen.append(buffer, static_cast<std::size_t>(got));
            return got > 0;
        };
        while (takeOutput()) {
            for (const Answer& answer : answers) {
                const std::size_t at = outcome.screen.find(answer.seen, answered);
                if (at == std::string::npos) continue;
                answered = at + answer.seen.size();
                if (answer.seen == kPasswordPrompt) waitUntilHidden(terminal);
                (void)!::write(terminal, answer.typed.data(), answer.typed.size());
                if (answer.done) answer.done();
            }
        }
        int status = 0;
        ::waitpid(pid, &status, 0);
        // read(2) may report the end of the terminal before the last output.
        while (takeOutput()) {
        }
        outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
        return outcome;
    }

    /// Plays a transcript. "terminal WORDS" is a command of the administrator on a terminal,
    /// "root-terminal" one of root there, and "root" one without a terminal. Fields follow:
    /// "PROMPT-> KEYS" is typed at the prompt, "not TEXT" is not shown, and all others are. The
    /// result is the exit code and how often a password was asked for.
    void expectCommands(const std::string& name) {
        const auto onTerminalOf = [](uid_t user) {
            return [user](const std::string& row) {
                const Line line(row);
                const Outcome outcome = onTerminal(line.words, line.answers, user);
                line.expectShown(outcome.screen);
                expectNoProgressInPrompt(outcome.screen);
                return resultOf(outcome);
            };
        };
        const auto withoutTerminal = [](const std::string& row) {
            const Line line(row);
            const int status = asRoot(line.words);
            line.expectShown(test::textOf("/run/output"));
            return resultOf({status, ""});
        };
        test::expectSteps(name, "/run",
                          {{"terminal", onTerminalOf(kAdministrator)},
                           {"root-terminal", onTerminalOf(0)},
                           {"root", withoutTerminal}});
    }

    std::unique_ptr<Machine> _machine;
    std::optional<test::Activator> _activator;
};

TEST(InterruptWatcher, SeesASignalThatItsThreadHasNotReadYet) {
    std::promise<void> busy;
    std::promise<void> seen;
    bool ticked = false;
    InterruptWatcher watcher({.onInterrupt = [] { return std::chrono::milliseconds{0}; },
                              .onOverdue = [] {},
                              .onTick =
                                  [&] {
                                      if (std::exchange(ticked, true)) return;
                                      busy.set_value();
                                      seen.get_future().wait();
                                  }});
    busy.get_future().wait();
    // Not to the process: other tests may have left threads that do not block it.
    ::pthread_kill(::pthread_self(), SIGINT);
    EXPECT_EQ(watcher.interruptedBy(), SIGINT);
    seen.set_value();
}

TEST_F(TerminalTest, LetsPolkitAskThereForThePassword) {
    expectCommands("password.txt");
}

TEST_F(TerminalTest, ShowsHowFarItIsAndStopsThere) {
    const auto makeTree = [] {
        // Long enough for a few progress lines.
        ASSERT_TRUE(test::shell("mkdir -p /run/tree && cd /run/tree && seq 40000 | xargs touch"));
    };
    makeTree();
    const std::string two = "delete-fileobjects -r /run/tree /run/none";
    const auto stop = [&] {
        return onTerminal(two, {{"[y/N] ", "y\n"}, {"1 of 2, 40,001 objects: /run/tree", "\003"}},
                          0);
    };
    Outcome stopped = stop();
    // On a busy machine the deletion may end before the key arrives.
    for (int again = 0; again < 4 && stopped.status == 0; ++again) {
        makeTree();
        stopped = stop();
    }
    EXPECT_EQ(stopped.status, 128 + SIGINT);
    EXPECT_THAT(stopped.screen, testing::ContainsRegex("stopped after [0-9,]+ objects"));

    // An authority that does not answer holds the operation up, but not a daemon that runs already.
    const auto keeper = Client::connect();
    ASSERT_TRUE(keeper && keeper->registerClient(0));
    ASSERT_TRUE(Machine::signalAuthority("STOP"));
    const Answer goOn{" s  at work", "", [&] { EXPECT_TRUE(Machine::signalAuthority("CONT")); }};
    const Outcome size = onTerminal("inspect-storagesize --bytes /run", {goOn}, 0);
    EXPECT_THAT(size.screen, HasSubstr(goOn.seen));
    EXPECT_EQ(size.status, 0);
}

TEST_F(TerminalTest, ShowsWhatTheUserMayDoAndPagesOnlyWhatIsLong) {
    expectCommands("rights.txt");
    ::setenv("NO_COLOR", "1", 1);
    EXPECT_THAT(onTerminal("nonsense", {}).screen, Not(HasSubstr("\033[")));
    ::unsetenv("NO_COLOR");
}

/// The journal is a namespace of its own (systemd-journald.service(8)), which reads neither the
/// kernel's log nor its audit.
TEST_F(TerminalTest, ListsWhoWasGrantedWhatFromTheJournal) {
    constexpr const char* kJournal = "/usr/lib/systemd/systemd-journald";
    if (::access(kJournal, X_OK) != 0) GTEST_SKIP() << "needs systemd-journald";
    ASSERT_TRUE(
        test::shell("mount -t tmpfs none /var/log; mkdir -p /run/systemd/journal.test "
                    "/run/systemd/journal; ln -s ../journal.test/socket /run/systemd/journal"));
    const test::Child journal(0, [] { return ::execl(kJournal, kJournal, "test", nullptr) == 0; });
    expectCommands("log.txt");
}

/// The other machine, "there", is this one: ssh starts its server itself.
TEST_F(TerminalTest, RunsACommandOnAnotherMachine) {
    if (!test::shell("command -v ssh /usr/sbin/sshd")) GTEST_SKIP() << "needs ssh and sshd";
    ASSERT_TRUE(runScript("remote_machine.sh"));
    expectCommands("remote.txt");
}

TEST_F(TerminalTest, UninstallsTheHelper) {
    const std::string name(kServiceName);
    ::setenv("PROGRAM", (CORVALEN_LIBEXEC_DIRECTORY "/" + name).c_str(), 1);
    ::setenv("UNIT", (CORVALEN_PREFIX "/lib/systemd/system/" + name + ".service").c_str(), 1);
    if (test::shell("test -e $PROGRAM")) GTEST_SKIP() << "the helper is installed here";
    expectCommands("uninstall.txt");
    // The same where the built-in authority decides.
    _activator.reset();
    _machine->stopBus();
    startHelper();
    ASSERT_TRUE(test::shell("touch $PROGRAM"));
    EXPECT_EQ(asRoot("uninstall --yes"), 0);
    EXPECT_TRUE(test::shell("test ! -e $PROGRAM"));
}

}  // namespace
}  // namespace corvalen::cli
