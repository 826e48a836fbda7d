// SPDX-License-Identifier: MIT
// The built program and the built daemon on a terminal of an ordinary user, with the real polkit.
#include <gmock/gmock.h>
#include <pty.h>
#include <sys/un.h>
#include <termios.h>

#include <corvalen/catalogue.hpp>
#include <corvalen/client.hpp>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iostream>

#include "cli/password_agent.hpp"
#include "cli/session.hpp"
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

int promptsOn(const Outcome& outcome) {
    int prompts = 0;
    for (std::size_t at = outcome.screen.find(kPasswordPrompt); at != std::string::npos;
         at = outcome.screen.find(kPasswordPrompt, at + 1))
        ++prompts;
    return prompts;
}

/// What somebody types when the text is seen.
struct Answer {
    std::string seen;
    std::string typed;
    std::function<void()> done = {};
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

    /// The exit code of a command without a terminal; what it writes is in /run/output.
    static int asRoot(const std::string& words) {
        const std::string command = "/run/corvalenctl " + words + " > /run/output 2>&1 </dev/null";
        return WEXITSTATUS(std::system(command.c_str()));
    }
    static std::string outputOfRoot(const std::string& words) {
        EXPECT_EQ(asRoot(words), 0) << words;
        return test::textOf("/run/output");
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
    static Outcome onTerminal(const std::function<void()>& work, const std::vector<Answer>& answers,
                              uid_t user = kAdministrator) {
        int terminal = -1;
        winsize size{24, 80, 0, 0};
        const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, &size);
        if (pid == 0) {
            if (::setresgid(user, user, user) == 0 && ::setresuid(user, user, user) == 0) work();
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
                if (answer.done) answer.done();
            }
        }
        int status = 0;
        ::waitpid(pid, &status, 0);
        outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
        return outcome;
    }

    /// The same with a command.
    static Outcome onTerminal(const std::string& words, const std::vector<Answer>& answers,
                              uid_t user = kAdministrator) {
        const std::string command =
            "exec env TERM=xterm LD_LIBRARY_PATH=/run PATH=/run/bin:$PATH "
            "PAGER='sed s/^/paged:/' /run/corvalenctl " +
            words;
        return onTerminal([&] { ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr); },
                          answers, user);
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

    const struct {
        std::string words;
        const char* typed;
        int status;
        const char* said;
    } cases[] = {
        {search, "wrong\n", 4, "the password was not accepted"},
        {search, "\003", 128 + SIGINT, "canceled; nothing was changed"},
        {"touch-fileobject /run", "\003", 128 + SIGINT, "canceled; nothing was changed"},
        {search + " --no-ask-password", "", 4, "Leave out --no-ask-password"},
    };
    for (const auto& [words, typed, status, said] : cases) {
        const Outcome outcome = onTerminal(words, {{kPasswordPrompt, typed}});
        EXPECT_EQ(outcome.status, status) << words;
        EXPECT_THAT(outcome.screen, HasSubstr(said)) << words;
        EXPECT_THAT(outcome.screen, Not(HasSubstr("Waiting for"))) << words;
        EXPECT_EQ(promptsOn(outcome), *typed != 0 ? 1 : 0) << words;
    }
    EXPECT_THAT(onTerminal("nop", {}).screen, "");

    // One password for all lines of the same operation.
    std::ofstream("/run/batch") << "touch-fileobject /run\ntouch-fileobject /run/tree\n";
    const Outcome batch = onTerminal("batch --json /run/batch", {{kPasswordPrompt, "secret\n"}});
    EXPECT_EQ(batch.status, 0) << batch.screen;
    EXPECT_EQ(promptsOn(batch), 1);
    EXPECT_THAT(batch.screen,
                HasSubstr("{\"line\":2,\"command\":\"touch-fileobject\",\"exitCode\":0}"));

    ASSERT_TRUE(polkit_test::run("rm /usr/share/polkit-1/actions/*.touch-fileobject.policy"));
    EXPECT_TRUE(test::eventually([] { return asRoot("touch-fileobject /run") == 4; }));
    EXPECT_THAT(test::textOf("/run/output"), HasSubstr("corvalenctl install-rights"));
}

TEST_F(TerminalTest, SaysWhatItIsAtAndWhatItWaitsFor) {
    const auto makeTree = [] {
        constexpr int kFiles = 40000;  // long enough for a few progress lines
        std::filesystem::create_directories("/run/tree/closed");
        for (int i = 0; i < kFiles; ++i)
            std::ofstream("/run/tree/" + std::to_string(i)).close();
        ::chmod("/run/tree/closed", 0700);
    };
    makeTree();
    const std::string two = "delete-fileobjects -r /run/tree /run/none";
    EXPECT_THAT(onTerminal(two, {{"[y/N] ", "n\n"}}).screen,
                HasSubstr("everything below them (at least 40,002 objects)? [y/N] "));
    EXPECT_THAT(
        onTerminal("delete-foldercontents /run/tree/closed >/dev/null 2>&1", {{"[y/N] ", "n\n"}})
            .screen,
        HasSubstr("Delete everything in '/run/tree/closed'? [y/N] "));
    EXPECT_THAT(onTerminal("delete-fileobjects -r /run/tree/closed", {{"[y/N] ", "n\n"}}).screen,
                HasSubstr("everything below it? [y/N] "));
    const auto stop = [&] {
        return onTerminal(two, {{"[y/N] ", "y\n"}, {"1 of 2, 40,002 objects: /run/tree", "\003"}},
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
    const Outcome done = onTerminal("delete-fileobjects -r /run/tree", {{"[y/N] ", "y\n"}}, 0);
    EXPECT_EQ(done.status, 0) << done.screen;

    // An authority that does not answer holds the operation up, but not a daemon that runs already.
    const auto keeper = Client::connect();
    ASSERT_TRUE(keeper && keeper->registerClient(0));
    const auto signalAuthority = [](const std::string& signal) {
        return polkit_test::run("kill -" + signal +
                                " $(busctl --system call org.freedesktop.DBus / "
                                "org.freedesktop.DBus GetConnectionUnixProcessID s "
                                "org.freedesktop.PolicyKit1 | cut -c3-)");
    };
    ASSERT_TRUE(signalAuthority("STOP"));
    const Answer goOn{" s  at work", "", [&] { EXPECT_TRUE(signalAuthority("CONT")); }};
    const Outcome size = onTerminal("inspect-storagesize --bytes /run", {goOn}, 0);
    EXPECT_THAT(size.screen, HasSubstr(goOn.seen));
    EXPECT_EQ(size.status, 0);

    std::filesystem::create_directories("/run/systemd/users");
    std::filesystem::create_directories("/run/systemd/sessions");
    std::ofstream("/run/systemd/users/61234") << "DISPLAY=desk\n";
    std::ofstream("/run/systemd/sessions/desk") << "TYPE=wayland\n";
    EXPECT_THAT(onTerminal("touch-fileobject /run", {{kPasswordPrompt, "secret\n"}}).screen,
                HasSubstr("Waiting for the authorization: answer the prompt of your session.\r\n"));
}

TEST_F(TerminalTest, ADryRunAsksForOnePasswordWhereTheObjectCanBeSeen) {
    std::filesystem::create_directories("/run/closed/tree/folder");
    ::chmod("/run/closed", 0700);
    std::filesystem::create_directories("/run/open/tree/folder");
    for (const auto& [parent, passwords] : {std::pair("/run/open/", 1), {"/run/closed/", 2}}) {
        const std::string tree = std::string(parent) + "tree";
        const Outcome outcome =
            onTerminal("delete-fileobjects -r --dry-run " + tree, {{kPasswordPrompt, "secret\n"}});
        EXPECT_EQ(outcome.status, 0) << outcome.screen;
        for (const std::string& shown :
             {tree + "\r\n", tree + "/folder\r\n", std::string("dry run: 2 objects, ")})
            EXPECT_THAT(outcome.screen, HasSubstr(shown));
        EXPECT_EQ(promptsOn(outcome), passwords);
        EXPECT_TRUE(std::filesystem::exists(tree + "/folder"));
    }
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

TEST_F(TerminalTest, ShowsWhatTheUserMayDoAndPagesOnlyWhatIsLong) {
    const Outcome status = onTerminal("status --rights", {});
    EXPECT_EQ(status.status, 0);
    EXPECT_THAT(status.screen, HasSubstr("paged:authority   polkit "));
    EXPECT_THAT(status.screen, HasSubstr("paged:nop                    may\r\n"));
    EXPECT_THAT(status.screen, HasSubstr("paged:touch-fileobject       must authenticate\r\n"));
    for (const char* unpaged :
         {"status", "list --no-pager", "list --json", "status --rights --json"})
        EXPECT_THAT(onTerminal(unpaged, {}).screen, Not(HasSubstr("paged:"))) << unpaged;
    EXPECT_THAT(onTerminal("--help", {}).screen, HasSubstr("paged:"));
    EXPECT_THAT(onTerminal("nonsense", {}).screen, HasSubstr("\033[1;31mcorvalenctl:\033[0m "));
    ::setenv("NO_COLOR", "1", 1);
    EXPECT_THAT(onTerminal("nonsense", {}).screen, Not(HasSubstr("\033[")));
    ::unsetenv("NO_COLOR");
    EXPECT_THAT(outputOfRoot("status --rights --json"),
                HasSubstr("{\"operation\":\"touch-fileobject\",\"you\":\"may\"}\n"));
    ASSERT_TRUE(
        polkit_test::run("echo 'polkit.addRule(function(action) { return "
                         "action.id.indexOf(\"touch\") > 0 ? \"no\" : undefined; });' > "
                         "/etc/polkit-1/rules.d/20.rules"));
    EXPECT_TRUE(test::eventually([] {
        return onTerminal("status --rights", {}).screen.find("touch-fileobject       may not\r") !=
               std::string::npos;
    }));
}

/// The journal of systemd as a namespace of its own (systemd-journald.service(8)): it reads neither
/// the kernel's log nor its audit.
class Journal {
  public:
    static bool isPossible() { return ::access(kProgram, X_OK) == 0; }
    Journal() {
        polkit_test::run(
            "mount -t tmpfs none /var/log; mkdir -p /run/systemd/journal.test "
            "/run/systemd/journal; ln -s ../journal.test/socket /run/systemd/journal");
        _process.emplace(0, [] { return ::execl(kProgram, kProgram, "test", nullptr) == 0; });
        EXPECT_TRUE(test::eventually([] { return write("MESSAGE=waits until it listens"); }));
    }
    /// What any process may send.
    static bool write(const std::string& fields) {
        const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        const sockaddr_un address{AF_UNIX, "/run/systemd/journal/socket"};
        return ::sendto(socket.get(), fields.data(), fields.size(), 0,
                        reinterpret_cast<const sockaddr*>(&address), sizeof address) > 0;
    }

  private:
    static constexpr const char* kProgram = "/usr/lib/systemd/systemd-journald";
    std::optional<test::Child> _process;
};

TEST_F(TerminalTest, ListsWhoWasGrantedWhatFromTheJournal) {
    if (!Journal::isPossible()) GTEST_SKIP() << "needs systemd-journald";
    const Journal journal;
    const std::string forged =
        "MESSAGE=x\nMESSAGE_ID=c330ee75d92a4a538f20fe2db795b385\nCORVALEN_OPERATION=nop\n";
    test::Child forger(kAdministrator, [&] { return Journal::write(forged); });
    EXPECT_EQ(forger.wait(), 0);
    EXPECT_EQ(asRoot("delete-fileobjects /run/no /run/none"), 1);
    EXPECT_EQ(onTerminal("touch-fileobject '/run'", {{kPasswordPrompt, "secret\n"}}).status, 0);
    EXPECT_EQ(onTerminal("touch-fileobject /run --no-ask-password", {}).status, 4);
    EXPECT_EQ(asRoot("nop"), 0);

    const std::string log = "log -D /var/log/journal/*.test ";
    EXPECT_TRUE(test::eventually(
        [&] { return outputOfRoot(log).find("touch-fileobject") != std::string::npos; }));
    const std::string table = outputOfRoot(log);
    EXPECT_EQ(std::count(table.begin(), table.end(), '\n'), 3) << table;
    EXPECT_THAT(table, testing::ContainsRegex("root +delete-fileobjects +No such file or directory"
                                              " +[0-9]+ corvalenctl +/run/no \\(1 of 2\\)\n"));
    EXPECT_THAT(table, testing::ContainsRegex("corvadmin +touch-fileobject +done +[0-9]+ "
                                              "corvalenctl +/run\n"));
    for (const char* only : {"--user corvadmin", "--user 61234", "--operation touch-fileobject",
                             "--limit 1", "--since 1h --limit 1"})
        EXPECT_THAT(outputOfRoot(log + only), Not(HasSubstr("delete"))) << only;
    EXPECT_THAT(outputOfRoot(log + "--json --user root"),
                testing::MatchesRegex(
                    ".\"time\":\"[^\"]+\",\"uid\":\"0\",\"user\":\"root\",\"pid\":\"[0-9]+\","
                    "\"executable\":\"/run/corvalenctl\",\"operation\":\"delete-fileobjects\","
                    "\"domain\":\"NSPOSIXErrorDomain\",\"outcome\":\"2\","
                    "\"objects\":.\"/run/no\",\"/run/none\"..\n"));
    EXPECT_THAT(outputOfRoot(log + "--operation modify-acl"), HasSubstr("no such lines"));
}

/// A machine named "there", which is this one: ssh starts its server itself.
constexpr const char* kSetUpSsh = R"(set -e
mkdir -p /run/sshd /run/bin
ssh-keygen -q -t ed25519 -N '' -f /run/host
ssh-keygen -q -t ed25519 -N '' -f /run/key
cat > /run/sshd_config << 'EOF'
HostKey /run/host
AuthorizedKeysFile /run/key.pub
PermitRootLogin yes
StrictModes no
UsePAM no
SetEnv PATH=/run:/usr/bin:/bin LD_LIBRARY_PATH=/run
EOF
cat > /run/ssh_config << 'EOF'
Host there
ProxyCommand /usr/sbin/sshd -i -f /run/sshd_config
IdentityFile /run/key
StrictHostKeyChecking no
UserKnownHostsFile /dev/null
Host nowhere
ProxyCommand false
EOF
printf '#!/bin/sh\nexec /usr/bin/ssh -F /run/ssh_config "$@"\n' > /run/bin/ssh
chmod +x /run/bin/ssh)";

TEST_F(TerminalTest, RunsACommandOnAnotherMachine) {
    if (!polkit_test::run("command -v ssh /usr/sbin/sshd")) GTEST_SKIP() << "needs ssh and sshd";
    ASSERT_TRUE(polkit_test::run(kSetUpSsh));
    std::filesystem::create_directories("/run/it's/$HOME");
    ::setenv("PATH", ("/run/bin:" + std::string(::getenv("PATH"))).c_str(), 1);
    const struct {
        const char* words;
        int status;
        const char* output;
    } cases[] = {
        {"-H root@there inspect-fileobject \"/run/it's/\\$HOME\"", 0, "folder\n"},
        {"inspect-fileobject --remote=there --json /run", 0, "{\"existence\":\"folder\"}\n"},
        {"-Hthere touch-fileobject /run/none", 1, "/run/none: No such file"},
        {"-H there search-patterns /run", 2, "at least one of --name"},
        {"-H there delete-foldercontents /run/none", 2, "there is no terminal to ask on"},
        {"-H there execute-utility chmod -Hx", 1, "execute-utility: chmod"},
        {"-H nowhere nop", 3, "the host 'nowhere' cannot be reached"},
        {"-H nowhere --json nop", 3, R"({"error":{"kind":"not-reachable","exitCode":3,)"},
        {"-H -oProxyCommand=true nop", 2, "'-oProxyCommand=true' is no host"},
    };
    for (const auto& [words, status, output] : cases) {
        EXPECT_EQ(asRoot(words), status) << words;
        EXPECT_THAT(test::textOf("/run/output"), HasSubstr(output)) << words;
    }
    const Outcome asked =
        onTerminal("-H there delete-foldercontents \"/run/it's\"", {{"[y/N] ", "y\n"}}, 0);
    EXPECT_EQ(asked.status, 0) << asked.screen;
    EXPECT_TRUE(std::filesystem::is_empty("/run/it's"));
}

TEST_F(TerminalTest, UninstallsTheHelper) {
    const std::string name(kServiceName);
    const std::string program = CORVALEN_LIBEXEC_DIRECTORY "/" + name;
    const std::string unit = CORVALEN_PREFIX "/lib/systemd/system/" + name + ".service";
    const auto install = [&] {
        for (const std::string& file : {program, unit}) {
            std::filesystem::create_directories(std::filesystem::path(file).parent_path());
            std::ofstream(file, std::ios::app).close();
        }
    };
    if (std::filesystem::exists(program)) GTEST_SKIP() << "the helper is installed here";
    for (const char* folder : {CORVALEN_LIBEXEC_DIRECTORY, CORVALEN_PREFIX "/lib/systemd/system"})
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
