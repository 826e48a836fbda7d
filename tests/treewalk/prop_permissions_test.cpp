// SPDX-License-Identifier: MIT
#include <sys/xattr.h>

#include <atomic>
#include <thread>

#include "platform/object_permissions.hpp"
#include "treewalk/fixture.hpp"

namespace corvalen {
namespace {

using testing::shell;

constexpr int kRounds = 2000;
constexpr uid_t kOwner = 1234;
constexpr gid_t kGroup = 2345;

class PropPermissions : public testing::TreeWalkTest {
  protected:
    std::string propagate(const std::string& path, int selection, int expected = 0) {
        return call("PropPermissions", {path, expected, 0, selection});
    }
    /// A file, or a folder for a name that ends in a slash, of this mode.
    void make(const std::string& name, mode_t mode) {
        grow({name});
        ASSERT_EQ(::chmod(at(name).c_str(), mode), 0);
    }
    bool setfacl(const std::string& change, const std::string& name) {
        return shell("setfacl " + change + " '" + at(name) + "'");
    }
    /// The entries of a list as getfacl prints them, one after the other; with a "+" in front when
    /// it is marked as inherited.
    std::string listOf(const std::string& name) {
        EXPECT_TRUE(shell("getfacl -cnpE '" + at(name) + "' | xargs >'" + at("list") + "'"));
        bool inherited = false;
        acl->readInheritedMark({AT_FDCWD, at(name).c_str(), true}, &inherited);
        std::string list;
        std::getline(std::ifstream(at("list")), list);
        return (inherited ? "+" : "") + list;
    }
};

TEST_F(PropPermissions, TakesTheChosenPermissionBits) {
    for (const bool oldWay : {false, true}) {
        forceOldWayForModes(oldWay);
        for (const auto& [selection, model, name, before, after] : {
                 std::tuple(0x08, 0750U, "t/file", 0644U, 0644U),
                 {0x08, 0750U, "t/sub/", 0755U, 0755U},
                 {0x08, 0570U, "t/sub/", 01755U, 01555U},
                 {0x0E, 0700U, "t/file", 04755U, 04711U},
                 {0x02, 0777U, "t/file", 0640U, 0646U},
                 {0x04, 0777U, "t/file", 0651U, 0671U},
                 {0x04, 0707U, "t/sub/", 02775U, 02705U},
                 {0x80, 0700U, "t/file", 0644U, 0644U},
             }) {
            make("t/", model);
            make(name, before);
            EXPECT_EQ(propagate(at("t"), selection), "none");
            EXPECT_EQ(modeOf(at(name)), after) << name << selection;
            EXPECT_EQ(modeOf(at("t")), model);
            ASSERT_TRUE(shell("rm -r '" + at("t") + "'"));
        }
    }
    forceOldWayForModes(false);
}

TEST_F(PropPermissions, ChangesLinksThemselvesAndNeverOpensPipes) {
    make("t/", 0700);
    make("outside", 0644);
    grow({"t/link > ../outside", "t/dangling > nowhere"});
    ASSERT_EQ(::mkfifo(at("t/pipe").c_str(), 0666), 0);
    ASSERT_EQ(::chown(at("t").c_str(), kOwner, kGroup), 0);
    for (const bool oldWay : {false, true}) {
        forceOldWayForModes(oldWay);
        EXPECT_EQ(propagate(at("t"), 0x1E), "none");
    }
    forceOldWayForModes(false);
    EXPECT_EQ(statusOf(at("t/link")).st_gid, kGroup);
    EXPECT_EQ(statusOf(at("t/dangling")).st_uid, 0U);
    EXPECT_EQ(modeOf(at("t/pipe")), 0600U);
    EXPECT_EQ(statusOf(at("outside")).st_gid, 0U);
    EXPECT_EQ(modeOf(at("outside")), 0644U);
    EXPECT_EQ(propagate(at("t"), 0x20), "none");
    EXPECT_EQ(statusOf(at("t/dangling")).st_uid, kOwner);
}

TEST_F(PropPermissions, NeverChangesTheOwnerOfSetIDObjects) {
    make("t/", 0755);
    ASSERT_EQ(::chown(at("t").c_str(), kOwner, kGroup), 0);
    for (const mode_t mode : {04755U, 02755U}) {
        make("t/tool", mode);
        for (const int selection : {0x10, 0x20, 0x3E}) {
            EXPECT_EQ(propagate(at("t"), selection), "posix 22 tool");
            EXPECT_EQ(answer->userInfo()->size(), 1U);
            EXPECT_EQ(sent(), "1");
        }
        EXPECT_EQ(statusOf(at("t/tool")).st_uid, 0U);
        EXPECT_EQ(modeOf(at("t/tool")), mode);
    }
}

TEST_F(PropPermissions, ReportsHundredsAndTheEnd) {
    make("t/", 0755);
    EXPECT_EQ(propagate(at("t"), 0x3F, 7), "none");
    EXPECT_EQ(sent(), "1");
    for (int i = 0; i < 250; ++i)
        make("t/" + std::to_string(i), 0644);
    EXPECT_EQ(propagate(at("t"), 0x08, 250), "none");
    EXPECT_EQ(sent(), "0.4 0.8 1");
    EXPECT_EQ(propagate(at("t"), 0x08), "none");
    EXPECT_EQ(sent(), "100 200 1");
}

TEST_F(PropPermissions, TellWhatFailedAndStopThere) {
    make("t/", 0755);
    make("t/locked", 0644);
    if (!setfacl("-m u:1234:r", "t") || !chattr("+i", at("t/locked")))
        GTEST_SKIP() << "no access lists or no flags here";
    for (const auto& [selection, expected] : {std::pair(0x01, "own 14 <posix 1> locked"),
                                              {0x30, "own 16 <posix 1> locked"},
                                              {0x0E, "own 17 <posix 1> locked"}}) {
        EXPECT_EQ(propagate(at("t"), selection), expected);
        EXPECT_EQ(answer->userInfo()->size(), 4U);
        EXPECT_EQ(*answer->filePath(), at("t/locked"));
        EXPECT_FALSE(answer->localizedDescription().empty());
        EXPECT_EQ(sent(), "1");
    }
    ASSERT_TRUE(chattr("-i", at("t/locked")) && ::unlink(at("t/locked").c_str()) == 0);
    link("t/dangling", "nowhere");
    EXPECT_EQ(propagate(at("t"), 0x01), "own 14 <posix 2> dangling");
}

TEST_F(PropPermissions, HandsOnTheNamedEntriesOfTheList) {
    make("t/", 0755);
    make("t/sub/", 0700);
    make("t/sub/file", 0640);
    make("t/listed", 0604);
    make("outside", 0600);
    make("untouched", 0600);
    link("t/link", "../outside");
    if (!setfacl("-m u:1234:rwx,g:2345:rw,m::rx,d:u:1234:r", "t") ||
        !setfacl("-m u:9:rwx,g::r", "t/listed"))
        GTEST_SKIP() << "no access lists here";
    EXPECT_EQ(propagate(at("t"), 0x41), "none");
    const auto listed = [](const std::string& owner, const std::string& group, const char* others) {
        return "user::" + owner + " user:1234:r-x group::" + group +
               " group:2345:r-- mask::r-x other::" + others;
    };
    EXPECT_EQ(listOf("t/sub/file"), "+" + listed("rw-", "r--", "---"));
    EXPECT_EQ(listOf("t/listed"), "+" + listed("rw-", "r--", "r--"));
    EXPECT_EQ(listOf("outside"), "+" + listed("rw-", "---", "---"));
    const std::string folderList = listOf("t/sub");
    EXPECT_EQ(folderList.rfind("+user::rwx user:1234:r-x group::---", 0), 0U) << folderList;
    EXPECT_NE(folderList.find("default:user:1234:r--"), std::string::npos);
    EXPECT_EQ(listOf("t")[0], 'u');
    EXPECT_EQ(listOf("untouched"), "user::rw- group::--- other::---");

    // Without the sixth bit the copies are as the folder's own; with mode bits, its mask counts.
    EXPECT_EQ(propagate(at("t"), 0x05), "none");
    EXPECT_EQ(listOf("t/listed"), listed("rw-", "r--", "r--"));

    // A list that goes leaves the group what it had, not what the mask allowed.
    ASSERT_TRUE(setfacl("-b", "t"));
    EXPECT_EQ(propagate(at("t"), 0x41), "none");
    for (const auto& [name, mode] :
         {std::pair("t/sub/file", 0640U), {"t/listed", 0644U}, {"outside", 0600U}}) {
        EXPECT_EQ(modeOf(at(name)), mode) << name;
        EXPECT_LT(::lgetxattr(at(name).c_str(), "system.posix_acl_access", nullptr, 0), 0);
    }
    EXPECT_EQ(listOf("t/sub"), "user::rwx group::--- other::---");
}

TEST_F(PropPermissions, NeverLeavesATreeWhoseFoldersAreExchangedForLinks) {
    if (!mountTmpfs("size=16m")) GTEST_SKIP() << "cannot mount";
    for (const char* name :
         {"mnt/outside/", "mnt/outside/sub/", "mnt/t/", "mnt/t/folder/", "mnt/t/folder/sub/"})
        make(name, 0700);
    for (const char* name :
         {"mnt/outside/1", "mnt/outside/sub/2", "mnt/t/folder/1", "mnt/t/folder/sub/2"})
        make(name, 0600);
    link("mnt/link", at("mnt/outside"));
    ASSERT_EQ(::chown(at("mnt/t").c_str(), kOwner, kGroup), 0);
    ASSERT_EQ(::chmod(at("mnt/t").c_str(), 0777), 0);
    std::atomic<bool> running{true};
    std::atomic<int> exchanges{0};
    std::thread attacker([&, inner = at("mnt/t/folder"), outer = at("mnt/link")] {
        while (running) {
            if (::renameat2(AT_FDCWD, inner.c_str(), AT_FDCWD, outer.c_str(), RENAME_EXCHANGE) == 0)
                ++exchanges;
        }
    });
    for (int round = 0; round < kRounds; ++round)
        propagate(at("mnt/t"), 0x3E);
    running = false;
    attacker.join();
    EXPECT_GT(exchanges, kRounds / 4);
    for (const char* name :
         {"mnt/outside", "mnt/outside/sub", "mnt/outside/1", "mnt/outside/sub/2"}) {
        EXPECT_EQ(statusOf(at(name)).st_uid, 0U) << name;
        EXPECT_EQ(modeOf(at(name)) & 077U, 0U) << name;
    }
    const bool isAway = S_ISLNK(statusOf(at("mnt/t/folder")).st_mode);
    EXPECT_EQ(statusOf(at(isAway ? "mnt/link/1" : "mnt/t/folder/1")).st_uid, kOwner);
}

}  // namespace
}  // namespace corvalen
