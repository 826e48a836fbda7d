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
    // Neither owner nor group of what has a set-ID bit.
    for (const auto& [mode, selection] : {std::pair(04755U, 0x10), {02755U, 0x3E}}) {
        make("t/tool", mode);
        EXPECT_EQ(propagate(at("t"), selection), "posix 22 tool");
        EXPECT_EQ(answer->userInfo()->size(), 1U);
        EXPECT_EQ(statusOf(at("t/tool")).st_uid, 0U);
        EXPECT_EQ(modeOf(at("t/tool")), mode);
    }
}

TEST_F(PropPermissions, ReportsHundredsAndStopsAtTheFirstFailure) {
    make("t/", 0755);
    EXPECT_EQ(propagate(at("t"), 0x3F, 7), "none");
    EXPECT_EQ(sent(), "1");
    files("t/", 250);
    EXPECT_EQ(propagate(at("t"), 0x08, 250), "none");
    EXPECT_EQ(sent(), "0.4 0.8 1");
    EXPECT_EQ(propagate(at("t"), 0x08), "none");
    EXPECT_EQ(sent(), "100 200 1");

    files("t/more", 3000);
    const auto order = QRLDirectoryEnumerator::enumeratorAtPath(at("t"))->allObjects();
    const std::size_t locked = 2345;
    if (!setfacl("-m u:1234:r", "t") || !chattr("+i", at("t/" + order[locked])))
        GTEST_SKIP() << "no access lists or no flags here";
    ASSERT_EQ(::chmod(at("t").c_str(), 0775), 0);
    for (const auto& [selection, code] : {std::pair(0x0E, "17"), {0x30, "16"}, {0x01, "14"}}) {
        EXPECT_EQ(propagate(at("t"), selection),
                  std::string("own ") + code + " <posix 1> " + order[locked]);
        EXPECT_EQ(answer->userInfo()->size(), 4U);
        EXPECT_EQ(*answer->filePath(), at("t/" + order[locked]));
        EXPECT_FALSE(answer->localizedDescription().empty());
        EXPECT_EQ(feedback.fractions.size(), 23U + 1);
    }
    for (std::size_t i = 0; i < order.size(); ++i) {
        const unsigned mode = i < locked ? 0664 : 0644;
        ASSERT_EQ(modeOf(at("t/" + order[i])), mode) << i << " of " << locked;
    }
    make("u/", 0755);
    link("u/dangling", "nowhere");
    ASSERT_TRUE(setfacl("-m u:1234:r", "u"));
    EXPECT_EQ(propagate(at("u"), 0x01), "own 14 <posix 2> dangling");
}

TEST_F(PropPermissions, HandsOnTheNamedEntriesOfTheList) {
    for (const auto& [name, mode] : {std::pair("t/", 0755U),
                                     {"t/sub/", 0700U},
                                     {"t/sub/file", 0640U},
                                     {"t/listed", 0604U},
                                     {"outside", 0600U},
                                     {"untouched", 0600U}})
        make(name, mode);
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
    for (const auto& [name, list] : {std::pair("t/sub/file", "user::rw- group::r-- other::---"),
                                     {"t/listed", "user::rw- group::r-- other::r--"},
                                     {"outside", "user::rw- group::--- other::---"},
                                     {"t/sub", "user::rwx group::--- other::---"}})
        EXPECT_EQ(listOf(name), list) << name;
}

TEST_F(PropPermissions, NeverLeavesATreeWhoseFoldersAreExchangedForLinks) {
    if (!mountTmpfs("size=16m")) GTEST_SKIP() << "cannot mount";
    ASSERT_TRUE(shell("cd '" + at("mnt") +
                      "' && umask 077 && mkdir -p outside/sub t/folder/sub && "
                      "touch outside/1 outside/sub/2 t/folder/1 t/folder/sub/2 && "
                      "ln -s $PWD/outside link && chown 1234:2345 t && chmod 777 t"));
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
    for (const std::string name : {"", "/sub", "/1", "/sub/2"}) {
        const struct stat status = statusOf(at("mnt/outside" + name));
        EXPECT_EQ(status.st_uid, 0U) << name;
        EXPECT_EQ(status.st_mode & 077U, 0U) << name;
    }
    const bool isAway = S_ISLNK(statusOf(at("mnt/t/folder")).st_mode);
    EXPECT_EQ(statusOf(at(isAway ? "mnt/link/1" : "mnt/t/folder/1")).st_uid, kOwner);
}

}  // namespace
}  // namespace corvalen
