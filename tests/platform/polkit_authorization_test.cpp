// SPDX-License-Identifier: MIT
// polkit as the authority: the real polkitd and system bus, real users, a real agent.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <future>

#include "platform/authority_steps.hpp"
#include "platform/linux/authorization/polkit.hpp"
#include "platform/linux/authorization/reference.hpp"
#include "platform/polkit_machine.hpp"

namespace corvalen {
namespace {

using namespace std::chrono_literals;
using namespace polkit_test;
using test::lineOf;

class Polkit : public test::AuthorityTest {
  protected:
    void SetUp() override {
        if (!Machine::isPossible()) GTEST_SKIP() << "needs root, dbus-daemon, polkitd";
        _machine = std::make_unique<Machine>();
        ASSERT_TRUE(_machine->isReady);
        _service = makePolkitAuthorizationService();
        ASSERT_NE(_service, nullptr);
        ::setenv("RULES", CORVALEN_EXAMPLE_RULES, 1);
    }
    PeerIdentity peerOf(const std::string& name) const override { return _clients.at(name)->peer; }

    /// Returns what the agent of a client reports.
    std::string heard(const std::string& client, std::chrono::milliseconds patience) const {
        const auto agent = _agents.find(client);
        const char event = agent != _agents.end() ? agent->second->next(patience) : '\0';
        return event == 'B' ? "prompt\n" : event == 'C' ? "withdrawn\n" : "";
    }
    /// Fields: client, right, and the letter of its authorization or the object of the request. An
    /// object that ends in "..." is cut.
    AuthorizationStatus decide(const PeerIdentity& peer, const test::Fields& row) const {
        if (row[2].size() < 2) return reference(peer, (row[2] + "a")[0])->copyRight(row[1], {});
        return reference(peer)->copyRight(row[1], [&row] {
            const bool isComplete = !row[2].ends_with("...");
            return RightPurpose{"Asks.", "table", row[2], {{"object", row[2]}}, isComplete};
        });
    }
    std::string check(const test::Fields& row) const {
        const AuthorizationStatus status = decide(peerOf(row[0]), row);
        std::string prompts;
        for (std::string one; !(one = heard(row[0], 0ms)).empty();)
            prompts += one;
        return prompts + lineOf(status);
    }
    void expectDecisions(const std::string& name) {
        auto steps = definitionSteps();
        const auto add = [&steps](const char* step,
                                  const std::function<void(const test::Fields&)>& work) {
            steps[step] = test::step([work](const test::Fields& row) {
                work(row);
                return std::string();
            });
        };
        add("client", [this](const auto& row) {
            _clients[row[0]] = std::make_unique<Client>(static_cast<uid_t>(std::stoul(row.at(1))));
        });
        add("agent", [this](const auto& row) {
            _agents[row[0]] = std::make_unique<Agent>(peerOf(row[0]), kAnswers.at(row[1]));
            EXPECT_TRUE(_agents[row[0]]->isRegistered);
        });
        add("end", [this](const auto& row) { _clients.at(row[0])->die(); });
        add("hang-up", [this](const auto& row) { _clients.at(row[0])->hangUp(); });
        add("discard", [this](const auto& row) { reference(peerOf(row[0]))->destroyRights(); });
        add("signal", [](const auto& row) { EXPECT_TRUE(Machine::signalAuthority(row[0])); });
        add("stop-bus", [this](const auto&) { _machine->stopBus(); });
        add("start-bus", [this](const auto&) { EXPECT_TRUE(_machine->startBus()); });
        add("begin", [this](const auto& row) {
            _begun[row[0]] = std::async(std::launch::async, [this, row, peer = peerOf(row[0])] {
                return decide(peer, row);
            });
        });
        add("until-granted", [this](const auto& row) {
            EXPECT_TRUE(test::eventually([&] { return decide(peerOf(row[0]), row) == 0; }));
        });
        steps["check"] = test::step([this](const auto& row) { return check(row); });
        steps["hear"] = [this](const auto& client) { return heard(client, test::kPatience); };
        steps["pause"] = [this](const auto& client) { return heard(client, 500ms); };
        steps["result"] = [this](const auto& client) { return lineOf(_begun.at(client).get()); };
        steps["authority"] = [](const auto&) {
            const std::string text =
                makeSystemAuthorizationService("/run/store", {})->description();
            return text.substr(0, text.find(' ')) + "\n";
        };
        test::expectSteps(name, "/run", steps);
    }

    static inline const std::map<std::string, Agent::Answer> kAnswers = {
        {"grants", Agent::grants},
        {"denies", Agent::denies},
        {"dismisses", Agent::dismisses},
        {"waits", Agent::waits}};

    std::unique_ptr<Machine> _machine;
    std::map<std::string, std::future<AuthorizationStatus>> _begun;
    std::map<std::string, std::unique_ptr<Client>> _clients;
    std::map<std::string, std::unique_ptr<Agent>> _agents;
};

TEST_F(Polkit, DecidesAsksAndRemembers) {
    expectDecisions("polkit.txt");
}

TEST_F(Polkit, DeniesWhileTheAuthorityOrTheBusFailsAndRecovers) {
    expectDecisions("polkit_failures.txt");
}

TEST(QuestionGate, AllowsOneTurnPerUserAndALimitedNumberInAll) {
    QuestionGate gate;
    const PeerIdentity ended;
    const PeerWatch watch(ended);  // a waiting caller gives up
    std::vector<std::optional<QuestionGate::Turn>> turns;
    for (uid_t user = 0; user < kMaxTurns; ++user)
        turns.push_back(gate.enter(user, watch));
    EXPECT_TRUE(turns.back().has_value());
    EXPECT_FALSE(gate.enter(kMaxTurns, watch).has_value());
    turns.pop_back();
    EXPECT_FALSE(gate.enter(0, watch).has_value()) << "has a turn already";
    EXPECT_TRUE(gate.enter(kMaxTurns, watch).has_value());
}

TEST_F(Polkit, KnowsWhetherRulesMayLookAtTheDetails) {
    const auto look = [](const std::string& rules) {
        test::putFile("/etc/polkit-1/rules.d/20.rules", rules);
        return mayPolkitRulesLookAt({{"object", "x"}}) ? "may" : "cannot";
    };
    test::expectRows("polkit_rules.txt", {{"rules", look}});
}

TEST(PolkitPolicyText, EscapesForeignMarkup) {
    const auto text =
        polkitPolicyText("t", RightPolicy::allow, "]]></message>\x01\xff\xc3\xa4", "\"><x y=\"");
    EXPECT_THAT(text, testing::HasSubstr("><![CDATA[]] ></message>??\xc3\xa4]]><"));
    EXPECT_THAT(text, testing::HasSubstr("gettext-domain=\"&quot;>&lt;x y=&quot;\""));
}

TEST(PolkitPolicyFiles, LeaveWhatWasInstalledWithTheHelper) {
    const test::ScratchFolder folder;
    const PolkitPolicyFiles files(folder.path());
    ASSERT_TRUE(files.set("defined", RightPolicy::allow, "p", "t"));
    std::ofstream(folder.path("installed.policy"))
        << installedPolkitPolicyText(polkitPolicyText("installed", RightPolicy::allow, "p", "t"));
    EXPECT_TRUE(files.remove("defined") && files.remove("defined"));
    EXPECT_EQ(files.get("defined"), kAuthorizationDenied);
    EXPECT_FALSE(files.remove("installed"));
    EXPECT_EQ(files.get("installed"), kAuthorizationSuccess);
}

TEST(GrantMemory, KeepsTheNewestGrantsOfAUserUntilTheyExpire) {
    GrantMemory memory;
    const AuthorizationName name = {};
    PeerIdentity peer{7, 1, 1, 5, nullptr};
    const auto right = [](std::size_t i) { return std::to_string(i); };
    const auto start = GrantMemory::now();
    for (std::size_t i = 0; i <= kMaxGrantsPerUser; ++i)
        memory.remember(peer, name, right(i), "", start);
    EXPECT_FALSE(memory.isRemembered(peer, name, right(0), "", start));
    EXPECT_TRUE(memory.isRemembered(peer, name, right(1), "", start));
    EXPECT_TRUE(memory.isRemembered(peer, name, right(1), "", start + 300s - 1ns));
    EXPECT_FALSE(memory.isRemembered(peer, name, right(1), "", start + 300s));
    memory.remember(peer, name, right(1), std::string(kMaxGrantScope + 1, 's'), start + 300s);
    EXPECT_FALSE(memory.isRemembered(peer, name, right(1), "", start + 300s));
    auto sameNumber = peer;
    sameNumber.startTime = 6;
    EXPECT_FALSE(memory.isRemembered(sameNumber, name, right(1), "", start));

    for (uid_t uid = 2; uid <= kMaxUsersWithGrants + 1; ++uid) {
        peer.uid = uid;
        memory.remember(peer, name, "r", "", start + 1s);
    }
    EXPECT_FALSE(memory.isRemembered(peer, name, "r", "", start + 1s)) << "a user too many";
    memory.remember(peer, name, "r", "", start + 300s);
    EXPECT_TRUE(memory.isRemembered(peer, name, "r", "", start + 300s)) << "another's have expired";
}

}  // namespace
}  // namespace corvalen
