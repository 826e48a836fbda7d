// SPDX-License-Identifier: MIT
// The built-in authority: its decisions, and how it reads and writes its rights file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <future>

#include "platform/authority_steps.hpp"

namespace corvalen {
namespace {

using test::lineOf;

constexpr uid_t kOrdinaryUser = 65534;

class BuiltInAuthority : public test::AuthorityTest {
  protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "needs root";
        _service = makeBuiltInAuthorizationService(
            rightsFile(), {{"open", "allow", ""}, {"guarded", "authenticate-admin", ""}});
    }
    std::string rightsFile() const { return _folder.path("store/rights"); }
    /// This process, with another user as the kernel would report it.
    static PeerIdentity processOf(uid_t uid) {
        return {::getpid(), uid, uid, processStartTime(::getpid()), nullptr};
    }
    PeerIdentity peerOf(const std::string& name) const override {
        return processOf(name == "root" ? 0 : kOrdinaryUser);
    }
    AuthorizationStatus check(uid_t uid, std::string_view right) const {
        return reference(processOf(uid))->copyRight(right, {});
    }

    const test::ScratchFolder _folder;
};

// "check RIGHT" shows the decisions for root and for a user.
TEST_F(BuiltInAuthority, DecidesByTheRightsFileAndChangesOnlyItsOwnLines) {
    auto steps = definitionSteps();
    steps["check"] = [this](const std::string& right) {
        return lineOf(check(0, right)) + lineOf(check(kOrdinaryUser, right));
    };
    steps["until-open"] = [this](const std::string& right) {
        EXPECT_TRUE(test::eventually([&] { return check(kOrdinaryUser, right) == 0; }));
        return std::string();
    };
    test::expectSteps("builtin_authority.txt", _folder.path(), steps);
}

TEST_F(BuiltInAuthority, RefusesOtherBytesAndProcessesThatEnded) {
    const std::string good = std::string(kAuthorizationExternalFormMagic) + std::string(24, '\0');
    for (const auto& bytes : {std::string(32, 'x'), good.substr(1), good + "x", std::string()}) {
        AuthorizationStatus status = kAuthorizationSuccess;
        EXPECT_EQ(_service->createFromExternalForm(bytes, processOf(0), &status), nullptr);
        EXPECT_EQ(status, kAuthorizationInvalidRef);
    }
    auto ended = processOf(0);
    --ended.startTime;
    AuthorizationStatus status = kAuthorizationInternal;
    EXPECT_EQ(_service->createFromExternalForm(good, ended, &status)->copyRight("guarded", {}),
              kAuthorizationDenied);
}

TEST_F(BuiltInAuthority, LosesNoChangeAndAdmitsNobodyWronglyUnderManyThreads) {
    std::vector<std::future<void>> threads(4);
    for (auto& thread : threads)
        thread = std::async(std::launch::async, [this, writer = &thread - threads.data()] {
            const auto root = reference(processOf(0));
            for (int i = 0; i < 10; ++i) {
                const auto name = std::to_string(writer) + "." + std::to_string(i);
                EXPECT_EQ(_service->rightSet(root.get(), name, "allow", "", ""), 0);
                EXPECT_EQ(check(kOrdinaryUser, "guarded"), kAuthorizationDenied);
                EXPECT_EQ(check(kOrdinaryUser, name), kAuthorizationSuccess);
            }
        });
    threads.clear();
    const auto content = test::textOf(rightsFile());
    EXPECT_EQ(std::count(content.begin(), content.end(), '\n'), 40);
}

}  // namespace
}  // namespace corvalen
