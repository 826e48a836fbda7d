// SPDX-License-Identifier: MIT
// polkit as the authority: the real polkitd and system bus, real users, a real agent.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <future>

#include "platform/authorization/authorization.hpp"
#include "platform/linux/authorization/grants.hpp"
#include "platform/linux/authorization/polkit_policies.hpp"
#include "platform/linux/authorization/prompts.hpp"
#include "polkit_machine.hpp"
#include "support/eventually.hpp"
#include "support/scratch_folder.hpp"

namespace corvalen {
namespace {

using namespace std::chrono_literals;
using namespace polkit_test;

class Polkit : public testing::Test {
  protected:
    void SetUp() override {
        if (!Machine::isPossible()) GTEST_SKIP() << "needs root, dbus-daemon, polkitd";
        _machine = std::make_unique<Machine>();
        ASSERT_TRUE(_machine->isReady);
        _service = makePolkitAuthorizationService();
        ASSERT_NE(_service, nullptr);
        AuthorizationStatus status = kAuthorizationInternal;
        _root = _service->create(&status);
        define("t.open", "allow");
        define("t.guarded", Dictionary{{"rule", "default"}});
        define("t.other", "authenticate-admin");
        // polkit reads new files with a delay.
        EXPECT_TRUE(test::eventually([&] { return _root->copyRight("t.other", {}) == 0; }));
    }
    void define(const char* right, const Value& definition) const {
        ASSERT_EQ(_service->rightSet(_root.get(), right, definition, "A \"prompt\" <&>", "table"),
                  kAuthorizationSuccess);
    }
    std::unique_ptr<Authorization> reference(const Client& client, char name = 'a') const {
        AuthorizationStatus status = kAuthorizationInternal;
        return _service->createFromExternalForm(
            std::string(kAuthorizationExternalFormMagic) + std::string(24, name), client.peer,
            &status);
    }
    AuthorizationStatus check(const Client& client, std::string_view right, char name = 'a') const {
        return reference(client, name)->copyRight(right, {});
    }
    AuthorizationStatus checkFor(const Client& client, std::string_view right, const char* object,
                                 bool isComplete = true) const {
        return reference(client)->copyRight(right, [&] {
            return RightPurpose{"Asks.", "table", object, {{"object", object}}, isComplete};
        });
    }
    std::future<AuthorizationStatus> checkInBackground(const Client& client, const char* right,
                                                       char name = 'a') const {
        return std::async(std::launch::async,
                          [this, &client, right, name] { return check(client, right, name); });
    }

    std::unique_ptr<Machine> _machine;
    std::unique_ptr<AuthorizationService> _service;
    std::unique_ptr<Authorization> _root;
};

TEST_F(Polkit, JudgesWithoutAPromptWhereNobodyCanBeAsked) {
    const Client root(0);
    const Client user(kUser);
    EXPECT_EQ(check(root, "t.guarded"), kAuthorizationSuccess);
    EXPECT_EQ(check(user, "t.open"), kAuthorizationSuccess);
    EXPECT_EQ(check(user, "t.guarded"), kAuthorizationInteractionNotAllowed);
    EXPECT_EQ(check(root, "t.unregistered"), kAuthorizationDenied);
    Client ended(kUser);
    ended.die();
    EXPECT_EQ(check(ended, "t.open"), kAuthorizationDenied);
}

TEST_F(Polkit, ForgetsWhoHeldARightThatIsDefinedAnew) {
    const Client client(kUser);
    EXPECT_EQ(check(client, "t.open"), kAuthorizationSuccess);
    EXPECT_TRUE(test::eventually([&] {
        define("t.open", "authenticate-admin");  // polkit may have granted the old one
        return check(client, "t.open") == kAuthorizationInteractionNotAllowed;
    }));
}

TEST_F(Polkit, FollowsTheAnswerAndRemembersWhoWasLetIn) {
    const std::pair<Agent::Answer, AuthorizationStatus> cases[] = {
        {Agent::dismisses, kAuthorizationCanceled},
        {Agent::denies, kAuthorizationDenied},
        {Agent::grants, kAuthorizationSuccess}};
    for (const auto& [answer, status] : cases) {
        const Client client(kUser);
        const Agent agent(client.peer, answer);
        EXPECT_EQ(check(client, "t.guarded"), status);
        EXPECT_EQ(agent.next(), 'B');
        EXPECT_EQ(check(client, "t.guarded"), status);
        const bool isRemembered = status == kAuthorizationSuccess;
        EXPECT_EQ(agent.next(100ms), isRemembered ? 0 : 'B');
        if (!isRemembered) continue;
        EXPECT_EQ(check(client, "t.guarded", 'b'), status);
        EXPECT_EQ(agent.next(), 'B') << "another authorization";
        reference(client)->destroyRights();
        EXPECT_EQ(check(client, "t.guarded"), status);
        EXPECT_EQ(agent.next(), 'B') << "discarded";
        EXPECT_EQ(check(client, "t.guarded", 'b'), status);
        EXPECT_EQ(agent.next(100ms), 0) << "the other authorization was not discarded";
    }
}

TEST_F(Polkit, AGrantReachesNoFurtherThanTheObjectWhereARuleMayLookAtIt) {
    const char* const right = "net.corvalen.kvx.modify-systemfile";
    define(right, "authenticate-admin");
    const auto expectQuestions = [&](std::initializer_list<std::pair<const char*, char>> rows,
                                     bool isComplete = true) {
        const Client client(kUser);
        const Agent agent(client.peer, Agent::grants);
        for (const auto& [object, prompt] : rows) {
            EXPECT_EQ(checkFor(client, right, object, isComplete), kAuthorizationSuccess) << object;
            EXPECT_EQ(agent.next(prompt == 0 ? 100ms : test::kPatience), prompt) << object;
        }
    };
    EXPECT_TRUE(test::eventually([&] { return check(Client(0), right) == 0; }));
    expectQuestions({{"/etc/motd", 'B'}, {"/etc/passwd", 0}});

    // The user is a member of the group in the rule.
    ASSERT_TRUE(polkit_test::run("sed s/webmasters/nogroup/ " CORVALEN_EXAMPLE_RULES
                                 " > /etc/polkit-1/rules.d/20-example.rules"));
    const Client client(kUser);
    EXPECT_TRUE(test::eventually([&] { return checkFor(client, right, "/etc/motd") == 0; }));
    expectQuestions({{"/etc/motd", 0},
                     {"/etc/motd\nX", 'B'},
                     {"/etc/passwd", 'B'},
                     {"/etc/passwd", 0},
                     {"/etc/shadow", 'B'},
                     {"/etc/passwd", 0}});
    expectQuestions({{"/etc/passwd", 'B'}, {"/etc/passwd", 'B'}}, false);
}

TEST_F(Polkit, EndsThePromptOfAClientThatGoesAndHoldsUpOnlyItsUser) {
    Client first(kUser);
    Client second(kUser);
    const Client stranger(kOtherUser);
    const Agent slow(first.peer, Agent::waits);
    const Agent slowToo(second.peer, Agent::waits);
    const Agent quick(stranger.peer, Agent::dismisses);
    ASSERT_TRUE(slow.isRegistered && slowToo.isRegistered && quick.isRegistered);

    auto firstCheck = checkInBackground(first, "t.guarded");
    ASSERT_EQ(slow.next(), 'B');
    auto secondCheck = checkInBackground(second, "t.guarded");
    EXPECT_EQ(slowToo.next(500ms), 0) << "a second prompt of one user";
    EXPECT_EQ(check(second, "t.open"), kAuthorizationSuccess) << "no prompt, no waiting";
    EXPECT_EQ(check(stranger, "t.guarded"), kAuthorizationCanceled);

    first.hangUp();
    EXPECT_EQ(firstCheck.get(), kAuthorizationDenied);
    EXPECT_EQ(slow.next(), 'C') << "the prompt is taken back";
    EXPECT_EQ(slowToo.next(), 'B') << "the next one's turn";
    second.die();
    EXPECT_EQ(secondCheck.get(), kAuthorizationDenied);
}

TEST_F(Polkit, DeniesWhileTheAuthorityOrTheBusFailsAndRecovers) {
    const Client client(kUser);
    const Agent user(client.peer, Agent::waits);
    ASSERT_TRUE(user.isRegistered);
    auto waiting = checkInBackground(client, "t.guarded");
    ASSERT_EQ(user.next(), 'B');
    ASSERT_TRUE(Machine::crashAuthority());
    EXPECT_EQ(waiting.get(), kAuthorizationInternal);
    EXPECT_EQ(check(client, "t.open"), kAuthorizationSuccess) << "polkit starts again";

    _machine->stopBus();
    EXPECT_EQ(check(client, "t.open", 'b'), kAuthorizationInternal);
    EXPECT_EQ(makePolkitAuthorizationService(), nullptr);
    ASSERT_TRUE(_machine->startBus());
    EXPECT_EQ(check(client, "t.open", 'b'), kAuthorizationSuccess) << "the bus is new";
    EXPECT_THAT(makeSystemAuthorizationService("/run/store", {})->description(),
                testing::StartsWith("polkit "));
}

TEST_F(Polkit, IsReplacedByTheBuiltInAuthorityWhereItIsMasked) {
    _machine->stopBus();
    ASSERT_TRUE(polkit_test::run("mount -t tmpfs none /usr/share/dbus-1/system-services"));
    ASSERT_TRUE(_machine->startBus());
    const auto service = makeSystemAuthorizationService("/run/store", {{"t.open", "allow", ""}});
    EXPECT_EQ(service->description(), "built-in authority, rights file /run/store/rights");
}

TEST_F(Polkit, ShowsDefinitionsAsActionsUntilTheyAreRemoved) {
    const auto shows = [](const std::string& line) {
        return polkit_test::run("pkaction -v -a t.other | grep -qx '" + line + "'");
    };
    EXPECT_TRUE(shows("  message: *A \"prompt\" <&>"));
    EXPECT_TRUE(shows("  implicit any: *auth_admin"));
    EXPECT_EQ(_service->rightGet("t.other"), kAuthorizationSuccess);
    EXPECT_EQ(_service->rightRemove(_root.get(), "t.other"), kAuthorizationSuccess);
    EXPECT_EQ(_service->rightGet("t.other"), kAuthorizationDenied);
    // A new authorization has no remembered grants.
    EXPECT_TRUE(test::eventually([&] { return !shows("  implicit any: *auth_admin"); }));
    EXPECT_EQ(check(Client(0), "t.other", 'b'), kAuthorizationDenied);
    EXPECT_EQ(_root->copyRight("t.other", {}), kAuthorizationSuccess)
        << "granted while it was there";
    EXPECT_EQ(_service->rightSet(reference(Client(kUser)).get(), "t.x", "allow", "", ""),
              kAuthorizationDenied);
    EXPECT_EQ(_service->rightSet(_root.get(), "../t", "allow", "", ""), kAuthorizationInvalidSet);
}

TEST(QuestionGate, HasOneTurnPerUserAndSoManyInAll) {
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

TEST(PolkitPolicyText, HasNoPlaceForForeignMarkup) {
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

TEST(GrantMemory, KeepsTheNewestOfAUserForTheirTimeOnly) {
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
