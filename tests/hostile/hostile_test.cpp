// SPDX-License-Identifier: MIT
// Attacks of ordinary users on the built daemon, which must go on serving root.
#include <algorithm>
#include <regex>

#include "endtoend/daemon_fixture.hpp"
#include "hostile/attacks.hpp"
#include "support/child.hpp"

namespace corvalen::test {
namespace {

using namespace std::chrono_literals;

constexpr uid_t kAttacker = 1000;

/// Runs a request of root in its own process: without a reply the test fails and does not hang.
bool endsWellWithin(std::chrono::milliseconds time, const std::function<bool()>& work) {
    Child child(0, work);
    const auto hasEnded = [&child] {
        siginfo_t end{};
        const int flags = WEXITED | WNOHANG | WNOWAIT;
        return ::waitid(P_PID, static_cast<id_t>(child.pid()), &end, flags) == 0 && end.si_pid != 0;
    };
    return eventually(hasEnded, time) && child.wait() == 0;
}

bool nopSucceeds() {
    const auto client = Client::connect();
    return client && client->perform("nop", {}).succeeded();
}

/// An attack under way; the constructor returns when its harm is done.
class UnderAttack {
  public:
    explicit UnderAttack(const std::string& name)
        : _attacker(kAttacker, [this, name] {
              const char done = attacks().at(name)() ? 'y' : 'n';
              (void)!::write(_pair.second.get(), &done, 1);
              ::pause();
              return true;
          }) {
        char done = 0;
        EXPECT_TRUE(waitFor(_pair.first, POLLIN, Clock::now() + 30s) &&
                    ::read(_pair.first.get(), &done, 1) == 1 && done == 'y');
    }

  private:
    SocketPair _pair = makeSocketPair(SOCK_STREAM);
    Child _attacker;
};

class HostileTest : public DaemonTest {
  protected:
    void SetUp() override {
        DaemonTest::SetUp();
        if (!IsSkipped()) keeper = Client::connect();
    }
    /// Sends SIGTERM; returns whether the daemon ended in time.
    bool stopsWithin(std::chrono::milliseconds time) {
        const int ends = activator->ends();
        ::kill(activator->lastProcess(), SIGTERM);
        return eventually([&] { return activator->ends() > ends; }, time);
    }
    [[nodiscard]] std::ptrdiff_t linesWith(const std::string& pattern) const {
        const std::string log = logText();
        const std::regex searched(pattern);
        return std::distance(std::sregex_iterator(log.begin(), log.end(), searched), {});
    }
    [[nodiscard]] std::size_t anonymousKiB() const {
        std::smatch found;
        const std::string status = textOf(proc() / "status");
        (void)std::regex_search(status, found, std::regex("RssAnon:\\s*([0-9]+)"));
        return std::stoul(found[1]);
    }
    std::string manyFiles(int count) const {
        std::string top = "/run/tree";
        std::filesystem::create_directory(top);
        for (int i = 0; i < count; ++i)
            ::close(::open((top + "/" + std::to_string(i)).c_str(), O_CREAT | O_WRONLY, 0600));
        ::chmod(top.c_str(), 0777);
        return top;
    }

    std::unique_ptr<Client> keeper;
};

class Lingering : public HostileTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(Lingering, SocketsHoldUpOnlyTheirSender) {
    const UnderAttack attack(GetParam());
    std::this_thread::sleep_for(200ms);
    EXPECT_TRUE(endsWellWithin(2s, nopSucceeds));
    EXPECT_TRUE(stopsWithin(1s));
}
INSTANTIATE_TEST_SUITE_P(Hostile, Lingering,
                         ::testing::Values("linger-past-quota", "linger-in-junk",
                                           "linger-in-offers"));

TEST_F(HostileTest, AFileThatIsNoEndpointIsNotKept) {
    const UnderAttack attack("send-file");
    const auto isKept = [this] {
        for (const auto& each : std::filesystem::directory_iterator(proc() / "fd")) {
            std::error_code gone;
            const auto target = std::filesystem::read_symlink(each.path(), gone);
            if (target.native().find("memfd:foreign") != std::string::npos) return true;
        }
        return false;
    };
    EXPECT_TRUE(eventually([&] { return !isKept(); }));
}

/// Describes the damage of a file that is rewritten with contents of a single letter each.
std::string tornness(const std::string& path, std::size_t size) {
    struct stat status {};
    const std::string text = textOf(path);
    if (::stat(path.c_str(), &status) != 0) return "missing";
    if (text.size() != size || text.find_first_not_of(text[0]) != std::string::npos) return "torn";
    return (status.st_mode & 07777U) == 0640 ? "" : "wrong mode";
}

TEST_F(HostileTest, UnregisteringCutsOffNoRequest) {
    const std::string file = putFile("/run/settings", std::string(4096, '0'), 0640);
    keeper.reset();
    const Child attackers[] = {{kAttacker, attacks().at("unregister")},
                               {kAttacker, attacks().at("unregister")}};
    int done = 0;
    std::string wrong;
    for (int i = 0; i < 200; ++i) {
        const auto client = Client::connect();
        const std::string content(4096, static_cast<char>('a' + i % 26));
        done += client &&
                client->perform("modify-systemfile", {file, Data::copy(content), true}).succeeded();
        wrong += tornness(file, 4096);
    }
    EXPECT_EQ(wrong, "");
    EXPECT_GT(done, 0);
    EXPECT_EQ(linesWith("About to perform"), linesWith("was completed with"));
}

TEST_F(HostileTest, ARequestThatComesWhileTheDaemonEndsIsAnswered) {
    keeper.reset();
    const Child attacker(kAttacker, attacks().at("unregister"));
    int lost = 0;
    for (int i = 0; i < 100; ++i) {
        const RawPeer connection = connectRaw();
        std::this_thread::sleep_for(1ms);
        connection.send(request(selector::kGetVersionString));
        lost += !connection.readable(5s) || connection.receive(1).empty();
    }
    // A busy machine may pause this process longer than the daemon waits for a first message.
    EXPECT_LT(lost, 5);
}

TEST_F(HostileTest, ABacklogOfUnregistrationsHoldsNobodyUp) {
    keeper.reset();
    const Child attackers[] = {{kAttacker, attacks().at("flood-backlog")},
                               {kAttacker, attacks().at("flood-backlog")}};
    std::this_thread::sleep_for(500ms);
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(endsWellWithin(5s, nopSucceeds));
}

TEST_F(HostileTest, BuffersArePaidForByTheirCapacity) {
    ASSERT_EQ(keeper->version(), "1.4");
    const std::size_t before = anonymousKiB();
    const UnderAttack attack("pin-buffers");
    EXPECT_TRUE(eventually([&] { return anonymousKiB() < before + 80UL * 1024; }));
    EXPECT_TRUE(endsWellWithin(2s, nopSucceeds));
}

TEST_F(HostileTest, LogLinesOfOneUserAreLimitedAndCounted) {
    const UnderAttack attack("flood-log");
    EXPECT_LT(linesWith("Received invalid operation"), 5000);
    EXPECT_TRUE(eventually([&] { return linesWith("left out") > 0; }));
    // The end reports what was left out in its own second.
    const UnderAttack another("flood-log");
    EXPECT_TRUE(keeper->registerClient() && keeper->unregisterClient());
    EXPECT_TRUE(eventually([&] { return activator->ends() > 0; }));
    const std::string log = logText();
    const std::regex report(R"((\d+) log lines of user 1000 were left out\.)");
    std::ptrdiff_t lines = linesWith("Received invalid operation");
    for (std::sregex_iterator each(log.begin(), log.end(), report), end; each != end; ++each)
        lines += std::stol((*each)[1]);
    EXPECT_EQ(lines, 40000);
}

TEST_F(HostileTest, AClientThatIsGoneEndsItsWalk) {
    const std::string top = manyFiles(40000);
    const std::pair<std::string, Array> cases[] = {{"prop-permissions", {top, 0, false, 0x0E}},
                                                   {"delete-fileobjects", {"1", "0", top}}};
    for (const auto& [operation, arguments] : cases) {
        {
            Child client(0, [&, &name = operation, &list = arguments] {
                Client::connect()->perform(name, list);
                return true;
            });
            const std::string begun = "'" + operation + "'";
            ASSERT_TRUE(eventually([&] { return linesWith(begun) > 0; }));
        }
        const std::string completed = operation + " was completed";
        ASSERT_TRUE(eventually([&] { return linesWith(completed) > 0; }));
        EXPECT_FALSE(std::filesystem::is_empty(top));
    }
    EXPECT_EQ(linesWith("stopped after [1-3]?[0-9]{1,4} objects"), 2);
}

TEST_F(HostileTest, SigtermEndsWalksAndTearsNothing) {
    const std::string top = manyFiles(20000);
    const Child walker(0, [&] {
        for (;;)
            Client::connect()->perform("prop-permissions", {top, 0, false, 0x0E});
        return true;
    });
    const std::size_t size = 4UL * 1024 * 1024;
    const std::string file = putFile("/run/settings", std::string(size, '0'), 0640);
    for (int i = 0; i < 10; ++i) {
        const Child writer(0, [&] {
            const Data content = Data::copy(std::string(size, 'x'));
            const auto client = Client::connect();
            for (;;)
                client->perform("modify-systemfile", {file, content, true});
            return true;
        });
        const auto count = linesWith("'modify-systemfile'");
        ASSERT_TRUE(eventually([&] { return linesWith("'modify-systemfile'") > count; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(i));
        // A second, and what a busy machine adds.
        EXPECT_TRUE(stopsWithin(1500ms));
        EXPECT_EQ(tornness(file, size), "");
    }
    EXPECT_GT(linesWith("prop-permissions was stopped .* because the helper ends"), 0);
}

TEST_F(HostileTest, AConnectionThatWaitsHasNoCapabilities) {
    EXPECT_TRUE(keeper->perform("nop", {}).succeeded());
    const std::filesystem::directory_iterator threads(proc() / "task");
    EXPECT_TRUE(std::any_of(begin(threads), end(threads), [](const auto& thread) {
        return textOf(thread.path() / "status").find("CapEff:\t0000000000000000") !=
               std::string::npos;
    }));
}

}  // namespace
}  // namespace corvalen::test
