// SPDX-License-Identifier: MIT
#include <sys/xattr.h>

#include "support/missing_calls.hpp"
#include "treewalk/fixture.hpp"

namespace corvalen {
namespace {

class PropPermissions : public testing::TreeWalkTest {
  protected:
    std::string propagate(const std::string& name, int selection, int expected = 0) {
        return call("PropPermissions", {at(name), expected, 0, selection});
    }
    /// The entries of a list as getfacl(1) prints them, in one line; "+" marks an inherited list.
    std::string listOf(const std::string& name) {
        EXPECT_TRUE(inside("getfacl -cnpE " + name + " | xargs >list"));
        const bool inherited =
            acl->readInheritedMark({kWorkingDirectory, at(name).c_str(), true}).value();
        const std::string list = textOf(at("list"));
        return std::string(inherited ? "+" : "").append(list, 0, list.find('\n'));
    }
};

TEST_F(PropPermissions, TakesTheChosenPermissionBits) {
    test::withAndWithout(test::kNewCalls, [this] {
        for (const auto& [selection, model, name, before, after] : {
                 std::tuple(0x08, "750", "file", "644", "644"),
                 {0x08, "750", "sub", "755", "755"},
                 {0x08, "570", "sub", "1755", "1555"},
                 {0x0E, "700", "file", "4755", "4711"},
                 {0x02, "777", "file", "640", "646"},
                 {0x04, "777", "file", "651", "671"},
                 {0x04, "707", "sub", "2775", "2705"},
                 {0x80, "700", "file", "644", "644"},
             }) {
            ASSERT_TRUE(inside("rm -rf t && mkdir -p t/sub && touch t/file && chmod " +
                               std::string(model) + " t && chmod " + before + " t/" + name));
            EXPECT_EQ(propagate("t", selection), "none");
            EXPECT_EQ(described(std::string("t/") + name), std::string("0:0 ") + after);
            EXPECT_EQ(described("t"), std::string("0:0 ") + model);
        }
    });
}

TEST_F(PropPermissions, ChangesLinksThemselvesAndNeverOpensPipes) {
    ASSERT_TRUE(
        inside("mkdir -m 700 t && touch outside && ln -s ../outside t/link && "
               "ln -s nowhere t/dangling && mkfifo -m 666 t/pipe && chown 1234:2345 t"));
    test::withAndWithout(test::kNewCalls, [this] { EXPECT_EQ(propagate("t", 0x1E), "none"); });
    EXPECT_EQ(described("t/pipe"), "0:2345 600");
    EXPECT_EQ(propagate("t", 0x20), "none");
    for (const char* name : {"t/link", "t/dangling"})
        EXPECT_EQ(described(name), "1234:2345 777");
    EXPECT_EQ(described("outside"), "0:0 644");
    // Objects with a set-ID bit keep their owner and group.
    const auto expectRefused = [&](const char* mode, int selection) {
        EXPECT_EQ(propagate("t", selection), "tool: EINVAL");
        EXPECT_EQ(answer->userInfo()->size(), 1U);
        EXPECT_EQ(described("t/tool"), std::string("0:0 ") + mode);
    };
    for (const auto& [mode, selection] : {std::pair("4755", 0x10), {"2755", 0x3E}}) {
        ASSERT_TRUE(inside(std::string("touch t/tool && chmod ") + mode + " t/tool"));
        expectRefused(mode, selection);
    }
    // The attribute that setcap(8) writes, for CAP_NET_RAW.
    constexpr unsigned char kCapability[20] = {1, 0, 0, 2, 0, 0x20};
    ASSERT_EQ(::setxattr(at("t/tool").c_str(), "security.capability", kCapability, 20, 0), 0);
    for (const char* mode : {"100", "010", "1"}) {
        ASSERT_TRUE(inside(std::string("chmod ") + mode + " t/tool"));
        expectRefused(mode[0] == '0' ? mode + 1 : mode, 0x20);
    }
    EXPECT_EQ(propagate("t", 0x0E), "none");
    EXPECT_EQ(::getxattr(at("t/tool").c_str(), "security.capability", nullptr, 0), 20);
    // Nobody may execute it, so the capability does not matter.
    ASSERT_TRUE(inside("chmod 644 t/tool"));
    EXPECT_EQ(propagate("t", 0x20), "none");
}

TEST_F(PropPermissions, ReportsHundredsAndStopsAtTheFirstFailure) {
    folder("t");
    EXPECT_EQ(propagate("t", 0x3F, 7), "none");
    EXPECT_EQ(feedback.sent, "1");
    ASSERT_TRUE(inside("seq -f t/%g 250 | xargs touch"));
    EXPECT_EQ(propagate("t", 0x08, 250), "none");
    EXPECT_EQ(feedback.sent, "0.4 0.8 1");
    EXPECT_EQ(propagate("t", 0x08), "none");
    EXPECT_EQ(feedback.sent, "100 200 1");

    ASSERT_TRUE(inside("seq -f t/%g 3250 | xargs touch"));
    const auto order = QRLDirectoryEnumerator::enumeratorAtPath(at("t"))->allObjects();
    const std::size_t locked = 2345;
    if (!inside("mkdir u && ln -s nowhere u/dangling && chmod 775 t && setfacl -m u:1234:r t u && "
                "chattr +i t/" +
                order[locked]))
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
    EXPECT_EQ(propagate("u", 0x01), "dangling: list unchanged: ENOENT");
}

TEST_F(PropPermissions, ReportsAnObjectThatVanishes) {
    struct Remover : FeedbackConnection {
        void processPrivilegedOperationFeedback(Dictionary /*feedback*/) override { remove(); }
        std::function<void()> remove;
    } remover;
    ASSERT_TRUE(inside("mkdir t && seq -f t/%g 150 | xargs touch"));
    const auto order = QRLDirectoryEnumerator::enumeratorAtPath(at("t"))->allObjects();
    remover.remove = [this] { (void)inside("rm -rf t"); };
    answer = test::perform(operations, "PropPermissions", {at("t"), 0, 0, 0x0e}, &remover);
    EXPECT_EQ(testing::summary(answer), order[100] + ": attributes unread: ENOENT");
}

TEST_F(PropPermissions, HandsOnTheNamedEntriesOfTheList) {
    if (!inside("mkdir -p t/sub && chmod 700 t/sub && touch t/sub/file t/listed outside other && "
                "chmod 640 t/sub/file && chmod 604 t/listed && chmod 600 outside other && "
                "ln -s ../outside t/link && "
                "setfacl -m u:1234:rwx,g:2345:rw,m::rx,d:u:1234:r t && "
                "setfacl -m u:9:rwx,g::r t/listed"))
        GTEST_SKIP() << "no access lists here";
    EXPECT_EQ(propagate("t", 0x41), "none");
    const std::string listed = "user::rw- user:1234:r-x group::r-- group:2345:r-- mask::r-x ";
    const std::string folder = "user::rwx user:1234:r-x group::--- group:2345:r-- mask::r-x ";
    const std::string outside = "user::rw- user:1234:r-x group::--- group:2345:r-- mask::r-x ";
    EXPECT_EQ(listOf("t/sub/file"), "+" + listed + "other::---");
    EXPECT_EQ(listOf("t/listed"), "+" + listed + "other::r--");
    EXPECT_EQ(listOf("outside"), "+" + outside + "other::---");
    EXPECT_EQ(listOf("t/sub").rfind("+" + folder + "other::--- default:user::", 0), 0U);
    EXPECT_NE(listOf("t/sub").find("default:user:1234:r--"), std::string::npos);
    EXPECT_EQ(listOf("t")[0], 'u');
    EXPECT_EQ(listOf("other"), "user::rw- group::--- other::---");

    // Without bit 6 the copies are not marked; with group bits the owning group's entry is the
    // directory's and the mask stays.
    EXPECT_EQ(propagate("t", 0x05), "none");
    EXPECT_EQ(listOf("t/listed"), listed + "other::r--");

    // Removing a list leaves the group its own bits, not those of the mask.
    ASSERT_TRUE(inside("setfacl -b t"));
    EXPECT_EQ(propagate("t", 0x41), "none");
    for (const auto& [name, list] : {std::pair("t/sub/file", "user::rw- group::r-- other::---"),
                                     {"t/listed", "user::rw- group::r-- other::r--"},
                                     {"outside", "user::rw- group::--- other::---"},
                                     {"t/sub", "user::rwx group::r-x other::---"}})
        EXPECT_EQ(listOf(name), list) << name;
}

TEST_F(PropPermissions, GivesTheOwningGroupNoMoreThanTheMaskLetThrough) {
    const auto reset = [this](const std::string& model) {
        return inside(
            "rm -rf t && mkdir -p t/sub && touch t/file t/plain && "
            "chmod 700 t/sub && chmod 640 t/file t/plain && "
            "setfacl -m u:9:rw,g::rw,m::r t/file && " +
            model);
    };
    if (!reset("true")) GTEST_SKIP() << "no access lists here";
    // The list is removed or replaced.
    EXPECT_EQ(propagate("t", 0x01), "none");
    EXPECT_EQ(listOf("t/file"), "user::rw- group::r-- other::---");
    ASSERT_TRUE(reset("setfacl -m u:1234:rw t"));
    EXPECT_EQ(propagate("t", 0x01), "none");
    EXPECT_EQ(listOf("t/file"), "user::rw- user:1234:rw- group::r-- mask::rw- other::---");

    // The model's group bits are those of its group's entry, not of its mask.
    const std::string wide = "chmod 750 t && setfacl -m u:1234:rwx,g::r,m::rwx t";
    ASSERT_TRUE(reset(wide));
    EXPECT_EQ(propagate("t", 0x04), "none");
    EXPECT_EQ(described("t/plain"), "0:0 640");
    EXPECT_EQ(described("t/sub"), "0:0 740");
    ASSERT_TRUE(reset(wide + " && chmod 620 t/plain"));
    EXPECT_EQ(propagate("t", 0x07), "none");
    for (const auto& [name, list] :
         {std::pair("t/plain", "user::rw- user:1234:rwx group::r-- mask::rwx other::---"),
          {"t/file", "user::rw- user:1234:rwx group::r-- mask::rwx other::---"},
          {"t/sub", "user::rwx user:1234:rwx group::r-- mask::rwx other::---"}})
        EXPECT_EQ(listOf(name), list) << name;
}

}  // namespace
}  // namespace corvalen
