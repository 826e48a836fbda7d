// SPDX-License-Identifier: MIT
#include <chrono>
#include <thread>

#include "support/missing_calls.hpp"
#include "treewalk/fixture.hpp"

namespace corvalen {
namespace {

class PropPermissions : public testing::TreeWalkTest {
  protected:
    std::string propagate(const std::string& name, int selection) {
        return call("PropPermissions", {at(name), 0, 0, selection});
    }
};

TEST_F(PropPermissions, AppliesTheSelectedAttributesOfTheDirectory) {
    test::withAndWithout(test::kNewCalls, [this] { expectOperations("prop_permissions.txt"); });
    if (!inside("touch listed && setfacl -m u:1:r listed")) GTEST_SKIP() << "no access lists here";
    test::withAndWithout(test::kNewCalls, [this] { expectOperations("prop_lists.txt"); });
}

TEST_F(PropPermissions, StopsAtTheFirstFailure) {
    ASSERT_TRUE(inside("mkdir t && seq -f t/%g 3250 | xargs touch"));
    const auto order = QRLDirectoryEnumerator::enumeratorAtPath(at("t"))->allObjects();
    const std::size_t locked = 2345;
    if (!inside("chmod 775 t && setfacl -m u:1234:r t && chattr +i t/" + order[locked]))
        GTEST_SKIP() << "no access lists or no flags here";
    for (const auto& [selection, what] : {std::pair(0x0E, ": mode unchanged: EPERM"),
                                          {0x30, ": owner unchanged: EPERM"},
                                          {0x01, ": list unchanged: EPERM"}}) {
        EXPECT_EQ(propagate("t", selection), order[locked] + what);
        EXPECT_EQ(answer->userInfo()->size(), 4U);
        EXPECT_EQ(*answer->filePath(), at("t/" + order[locked]));
        EXPECT_FALSE(answer->localizedDescription().empty());
        EXPECT_TRUE(feedback.sent.ends_with(" 2200 2300 1")) << feedback.sent;
    }
    for (std::size_t i = 0; i < order.size(); ++i)
        ASSERT_EQ(modeOf(at("t/" + order[i])), i < locked ? 0664U : 0644U) << i;
}

TEST_F(PropPermissions, ReadsAModeImmediatelyBeforeItIsChanged) {
    struct Changer : FeedbackConnection {
        void processPrivilegedOperationFeedback(Dictionary /*feedback*/) override {
            ++messages;
            // The second thread examines the next objects meanwhile.
            if (messages == 20) std::this_thread::sleep_for(std::chrono::milliseconds(200));
            if (messages == 21) (void)::chmod(path.c_str(), mode);
        }
        std::string path;
        mode_t mode = 0;
        int messages = 0;
    } changer;
    ASSERT_TRUE(inside("mkdir t && chmod 755 t && seq -f t/%g 3250 | xargs touch"));
    const auto order = QRLDirectoryEnumerator::enumeratorAtPath(at("t"))->allObjects();
    changer.path = at("t/" + order[2105]);
    const auto propagated = [&](int selection, mode_t mode) {
        changer.messages = 0;
        changer.mode = mode;
        return testing::summary(
            test::perform(table, "PropPermissions", {at("t"), 0, 0, selection}, &changer));
    };
    EXPECT_EQ(propagated(0x04, 0606), "none");
    EXPECT_EQ(modeOf(changer.path), 0646U);
    // A file with a set-ID bit, examined ahead, stops a change of owner.
    ASSERT_EQ(::chmod(changer.path.c_str(), 04755), 0);
    EXPECT_EQ(propagated(0x10, 04755), order[2105] + ": EINVAL");
}

TEST_F(PropPermissions, ReportsAnObjectThatVanishes) {
    struct Remover : FeedbackConnection {
        void processPrivilegedOperationFeedback(Dictionary /*feedback*/) override { remove(); }
        std::function<void()> remove;
    } remover;
    ASSERT_TRUE(inside("mkdir t && seq -f t/%g 150 | xargs touch"));
    const auto order = QRLDirectoryEnumerator::enumeratorAtPath(at("t"))->allObjects();
    remover.remove = [this] { (void)inside("rm -rf t"); };
    answer = test::perform(table, "PropPermissions", {at("t"), 0, 0, 0x0e}, &remover);
    EXPECT_EQ(testing::summary(answer), order[100] + ": attributes unread: ENOENT");
}

}  // namespace
}  // namespace corvalen
