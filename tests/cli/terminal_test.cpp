// SPDX-License-Identifier: MIT
// The built program and the built daemon on a terminal of an ordinary user, with the real polkit.
#include <gmock/gmock.h>
#include <pty.h>
#include <termios.h>

#include <corvalen/catalogue.hpp>
#include <corvalen/client.hpp>
#include <filesystem>
#include <fstream>
#include <future>
#include <iostream>

#include "cli/interrupt_watcher.hpp"
#include "cli/password_agent.hpp"
#include "operations/names.hpp"
#include "platform/polkit_machine.hpp"
#include "support/activator.hpp"

namespace corvalen::cli {
namespace {

using polkit_test::Machine;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kPasswordPrompt = "Password: ";

/// The machine's only administrator, with the password "secret".
constexpr uid_t kAdministrator = 61234;
constexpr const char* kAddAdministrator = R"(set -e
echo 'polkit.addAdminRule(function() { return ["unix-user:corvadmin"]; });' > /etc/polkit-1/rules.d/10.rules
sed '$a corvadmin:x:61234:61234::/:/bin/sh' /etc/passwd > /run/passwd
(umask 077; cat /etc/shadow - > /run/shadow) << 'EOF'
corvadmin:$6$corvalen$BUpMfLR1wY501cuuVFIHBY.G9LA5NlpHludzh7juOwplC.AzAvM76Y5oUrgxfvgJJYuR0AeqabyNDlHy8kYle0:19000:0:99999:7:::
EOF
for name in passwd shadow; do mount --bind /run/$name /etc/$name; done)";

struct Outcome {
    int status = -1;
    std::string screen;
};

/// What somebody types when the text is seen.
struct Answer {
    std::string seen;
    std::string typed;
};

class TerminalTest : public testing::Test {
  protected:
    void SetUp() override {
        if (!Machine::isPossible()) GTEST_SKIP() << "needs root, dbus-daemon, polkitd, pkttyagent";
        _machine = std::make_unique<Machine>();
        ASSERT_TRUE(_machine->isReady && polkit_test::run(kAddAdministrator));
        // The user may be unable to reach the build directory, below /root for instance.
        std::filesystem::copy(CORVALENCTL_PATH, "/run/corvalenctl");
        std::filesystem::copy(CORVALEN_CLIENT_LIBRARY, "/run");
        _activator.emplace(CORVALEN_HELPER_PROGRAM, std::string(kServiceSocketPath),
                           std::string(kServiceName), "/run/log");
        ASSERT_EQ(asRoot("install-rights"), 0);
        // polkit sees the rights some time after they were defined.
        ASSERT_TRUE(test::eventually([] { return asRoot("inspect-fileobject /") == 0; }));
    }

    /// The exit code of a command without a terminal.
    static int asRoot(const std::string& words) {
        const std::string command = "/run/corvalenctl " + words + " > /run/output 2>&1 </dev/null";
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

    /// What the administrator does on a terminal; each answer is given every time.
    static Outcome onTerminal(const std::function<void()>& work,
                              const std::vector<Answer>& answers) {
        int terminal = -1;
        const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, nullptr);
        if (pid == 0) {
            if (::setresgid(kAdministrator, kAdministrator, kAdministrator) == 0 &&
                ::setresuid(kAdministrator, kAdministrator, kAdministrator) == 0)
                work();
            ::_exit(1);
        }
        const UniqueFd keeper(terminal);
        Outcome outcome;
        std::size_t answered = 0;
        char buffer[4096];
        for (ssize_t got; (got = ::read(terminal, buffer, sizeof buffer)) > 0;) {
            outcome.screen.append(buffer, static_cast<std::size_t>(got));
            for (const Answer& answer : answers) {
                const std::size_t at = outcome.screen.find(answer.seen, answered);
                if (at == std::string::npos) continue;
                answered = at + answer.seen.size();
                if (answer.seen == kPasswordPrompt) waitUntilHidden(terminal);
                (void)!::write(terminal, answer.typed.data(), answer.typed.size());
            }
        }
        int status = 0;
        ::waitpid(pid, &status, 0);
        outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
        return outcome;
    }

    /// The same with a command.
    static Outcome onTerminal(const std::string& words, const std::vector<Answer>& answers) {
        const std::string command =
            "exec env TERM=xterm LD_LIBRARY_PATH=/run /run/corvalenctl " + words;
        return onTerminal([&] { ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr); },
                          answers);
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
    std::filesystem::create_directory("/run/tree");
    std::ofstream("/run/tree/wanted").close();
    const std::string search = "search-patterns /run/tree --name wanted";
    const Outcome found = onTerminal(search, {{kPasswordPrompt, "secret\n"}});
    EXPECT_EQ(found.status, 0);
    EXPECT_THAT(found.screen, HasSubstr("/run/tree/wanted"));
    EXPECT_THAT(found.screen, HasSubstr("certain name patterns.\r\nfolder: /run/tree\r\n"));
    const std::string prompted = found.screen.substr(0, found.screen.find("COMPLETE"));
    EXPECT_THAT(prompted, Not(HasSubstr("\033[K"))) << "no progress is drawn into the prompt";

    EXPECT_EQ(onTerminal(search, {{kPasswordPrompt, "wrong\n"}}).status, 4);
    EXPECT_EQ(onTerminal(search, {{kPasswordPrompt, "\003"}}).status, 128 + SIGINT);
    EXPECT_EQ(onTerminal("touch-fileobject /run", {{kPasswordPrompt, "\003"}}).status,
              128 + SIGINT);
    const Outcome denied = onTerminal(search + " --no-ask-password", {});
    EXPECT_EQ(denied.status, 4);
    EXPECT_THAT(denied.screen, Not(HasSubstr("AUTHENTICATING")));
    EXPECT_THAT(onTerminal("nop", {}).screen, "");
}

TEST_F(TerminalTest, RemembersThePasswordUntilItIsDiscarded) {
    const Outcome outcome = onTerminal(
        [] {
            const PasswordAgent agent(*findOperation("inspect-fileobject"), {});
            const auto client = Client::connect();
            for (const char* operation : {"inspect-fileobject", "inspect-fileobject",
                                          "discard-auth", "inspect-fileobject"}) {
                const bool asks = operation[0] == 'i';
                const bool done =
                    client->perform(operation, asks ? Array{"/"} : Array{}).succeeded();
                std::cout << (done ? "<done>" : "<failed>") << std::endl;
            }
        },
        {{kPasswordPrompt, "secret\n"}});
    std::string story;
    for (std::size_t at = 0; at < outcome.screen.size(); ++at)
        for (const std::string_view word : {kPasswordPrompt, "<done>", "<failed>"})
            if (outcome.screen.compare(at, word.size(), word) == 0) story += word;
    EXPECT_EQ(story, "Password: <done><done><done>Password: <done>");
}

TEST_F(TerminalTest, UninstallsTheHelper) {
    const std::string name(kServiceName);
    const std::string program = CORVALEN_LIBEXEC_FOLDER "/" + name;
    const std::string unit = CORVALEN_PREFIX "/lib/systemd/system/" + name + ".service";
    const auto install = [&] {
        for (const std::string& file : {program, unit}) {
            std::filesystem::create_directories(std::filesystem::path(file).parent_path());
            std::ofstream(file, std::ios::app).close();
        }
    };
    if (std::filesystem::exists(program)) GTEST_SKIP() << "the helper is installed here";
    for (const char* folder : {CORVALEN_LIBEXEC_FOLDER, CORVALEN_PREFIX "/lib/systemd/system"})
        polkit_test::run(("mount -t tmpfs none " + std::string(folder)).c_str());
    EXPECT_EQ(asRoot("uninstall --yes"), 1) << "not installed";
    install();
    EXPECT_EQ(asRoot("uninstall"), 2) << "nobody to ask";
    EXPECT_EQ(onTerminal("uninstall", {{"[y/N] ", "n\n"}}).status, 1);
    EXPECT_EQ(onTerminal("uninstall -y", {{kPasswordPrompt, "wrong\n"}}).status, 4);
    EXPECT_TRUE(std::filesystem::exists(program));

    const Outcome outcome =
        onTerminal("uninstall", {{"[y/N] ", "y\n"}, {kPasswordPrompt, "secret\n"}});
    EXPECT_EQ(outcome.status, 0) << outcome.screen;
    EXPECT_THAT(outcome.screen, HasSubstr("removed " + program));
    for (const std::string& file : {program, unit, std::string(kServiceSocketPath)})
        EXPECT_FALSE(std::filesystem::exists(file)) << file;
    EXPECT_FALSE(polkit_test::run("ls /usr/share/polkit-1/actions/net.corvalen.kvx.* 2>/dev/null"));

    // The same where the built-in authority decides.
    _activator.reset();
    _machine->stopBus();
    _activator.emplace(CORVALEN_HELPER_PROGRAM, std::string(kServiceSocketPath), name, "/run/log");
    install();
    EXPECT_EQ(asRoot("uninstall --yes"), 0);
    EXPECT_FALSE(std::filesystem::exists(program));
}

}  // namespace
}  // namespace corvalen::cli
