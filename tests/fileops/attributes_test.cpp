// SPDX-License-Identifier: MIT
// Flags, attributes, lists, and a file of the system with all it has.
#include <sys/syscall.h>
#include <sys/xattr.h>

#include "fileops/operations_fixture.hpp"
#include "support/missing_calls.hpp"

namespace corvalen {
namespace {

class Protection : public testing::OperationsTest {};

TEST_F(Protection, OfATreeStaysOnItsVolumeWhenAsked) {
    if (!mountTmpfs("size=1m")) GTEST_SKIP() << "cannot mount";
    ASSERT_TRUE(inside("touch file mnt/inner && mkdir folder && ln -s nowhere dangling"));
    EXPECT_EQ(call("ModifyProtection", {_top, true, true, true}), "none");
    for (const char* name : {"", "file", "folder"})
        EXPECT_TRUE(isImmutable(at(name))) << name;
    EXPECT_FALSE(isImmutable(at("mnt")));
    EXPECT_FALSE(isImmutable(at("mnt/inner")));
    EXPECT_EQ(call("ModifyProtection", {_top, true, true, false}), "none");
    EXPECT_TRUE(isImmutable(at("mnt/inner")));
    EXPECT_EQ(call("ModifyProtection", {_top, false, true, false}), "none");
    for (const char* name : {"", "file", "mnt/inner"})
        EXPECT_FALSE(isImmutable(at(name))) << name;
}

TEST_F(Protection, FollowsOneLinkAndFailsAsTheFlagsDo) {
    ASSERT_TRUE(inside("touch target && ln -s target link"));
    EXPECT_EQ(call("ModifyProtection", {at("link"), true, true, false}), "none");
    EXPECT_TRUE(isImmutable(at("target")));
    EXPECT_EQ(call("ModifyProtection", {"/proc/version", true, false, false}), "EOPNOTSUPP");
    EXPECT_EQ(call("ModifyProtection", {"/proc/version", false, false, false}), "none");
    flags.failure = EIO;
    EXPECT_EQ(call("ModifyProtection", {_top, true, true, false}), "EIO");
}

TEST_F(Protection, PassesOverWhatCarriesNoFlagBelowTheTop) {
    ASSERT_TRUE(
        inside("mkdir t && cd t && touch a z && mkfifo pipe && ln -s /dev/null null && "
               "mknod device c 1 3"));
    EXPECT_EQ(call("ModifyProtection", {at("t"), true, true, false}), "none");
    for (const char* name : {"t", "t/a", "t/z"})
        EXPECT_TRUE(isImmutable(at(name))) << name;
    EXPECT_EQ(call("ModifyProtection", {at("t/pipe"), true, false, false}), "EOPNOTSUPP");
    EXPECT_EQ(call("ModifyProtection", {at("t/null"), true, false, false}), "EOPNOTSUPP");
}

TEST_F(Protection, StaysOnItsMountOfTheSameDeviceToo) {
    if (!mountTmpfs("size=1m")) GTEST_SKIP() << "cannot mount";
    ASSERT_TRUE(
        inside("mkdir -p mnt/t/bound mnt/other && touch mnt/other/file && "
               "mount --bind mnt/other mnt/t/bound"));
    EXPECT_EQ(call("ModifyProtection", {at("mnt/t"), true, true, true}), "none");
    EXPECT_TRUE(isImmutable(at("mnt/t")));
    EXPECT_FALSE(isImmutable(at("mnt/other/file")));
}

class SystemFile : public testing::OperationsTest {
  protected:
    std::string rewrite(const std::string& path, std::string_view content, bool removeBackup) {
        return call("ModifySystemfile", {path, Data::copy(content), removeBackup});
    }
};

TEST_F(SystemFile, IsReplacedWithEverythingTheOldOneHad) {
    ASSERT_TRUE(
        inside("mkdir etc && cd etc && printf old >hosts && printf older >hosts.backup && "
               "setfacl -m u:1234:rw hosts && chown 12:13 hosts && chmod 6664 hosts && "
               "touch -d @5 hosts && ln -s etc/hosts ../link"));
    const std::string target = at("etc/hosts");
    ASSERT_EQ(::setxattr(target.c_str(), "user.note", "n", 1, 0), 0);
    ::umask(077);
    EXPECT_EQ(rewrite(at("link"), "new", false), "none");
    EXPECT_EQ(::umask(022), 077U);
    EXPECT_TRUE(S_ISLNK(statusOf(at("link")).st_mode));
    EXPECT_EQ(textOf(target), "new");
    EXPECT_EQ(textOf(at("etc/hosts.backup")), "old");
    for (const std::string name : {"etc/hosts", "etc/hosts.backup"}) {
        EXPECT_EQ(described(name), "12:13 6664");
        EXPECT_EQ(::getxattr(at(name).c_str(), "user.note", nullptr, 0), 1);
        EXPECT_TRUE(inside("getfacl -cn " + name + " | grep -qx user:1234:rw-"));
    }
    EXPECT_GT(statusOf(target).st_mtim.tv_sec, 1000000);
    EXPECT_EQ(rewrite(target, "", true), "none");
    EXPECT_EQ(statusOf(target).st_size, 0);
    EXPECT_FALSE(exists(at("etc/hosts.backup")));
}

TEST_F(SystemFile, IsLeftAloneWhenItCannotBeMovedAside) {
    const std::string target = file("hosts", "old");
    folder("hosts.backup");
    EXPECT_EQ(rewrite(target, "x", true), "hosts.backup: backup blocked");
    ASSERT_EQ(::rmdir(at("hosts.backup").c_str()), 0);
    ASSERT_TRUE(chattr("+i", target));
    EXPECT_EQ(rewrite(target, "x", true), "hosts: protected: no permission: EPERM");
    EXPECT_EQ(textOf(target), "old");
    ASSERT_TRUE(chattr("-i", target));
    link("hosts.backup", "nowhere");
    EXPECT_EQ(rewrite(target, "x", true), "hosts: protected: hosts.backup: exists: EEXIST");
    EXPECT_EQ(textOf(target), "old");
}

TEST_F(SystemFile, TakesNothingFromTheListOfItsDirectory) {
    ASSERT_TRUE(
        inside("mkdir etc && touch etc/hosts && chmod 640 etc/hosts && "
               "setfacl -d -m u:1234:rwx,g::rwx etc"));
    EXPECT_EQ(rewrite(at("etc/hosts"), "new", true), "none");
    EXPECT_TRUE(inside("test -z \"$(getfacl -s etc/hosts)\""));
    EXPECT_EQ(modeOf(at("etc/hosts")), 0640U);
}

TEST_F(SystemFile, IsPrivateUntilItHasTheAttributesOfTheOldOne) {
    ASSERT_TRUE(inside("printf old >hosts && chown 12:13 hosts"));
    const auto fail = [this] {
        EXPECT_TRUE(test::loseCalls({SYS_fchmod, SYS_fchown, SYS_fchownat}, EPERM));
        EXPECT_EQ(rewrite(at("hosts"), "new", true), "hosts: no permission: EPERM");
        ::_exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(fail(), ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(described("hosts"), "0:0 600");
    EXPECT_EQ(textOf(at("hosts.backup")), "old");
}

TEST_F(SystemFile, IsFoundBehindALongWayAndNotByTheTextOfAMagicLink) {
    // The path is longer than the kernel takes in one piece.
    const std::string name(200, 'd');
    std::string half = name;
    for (int i = 0; i < 11; ++i)
        half += "/" + name;
    ASSERT_TRUE(inside("mkdir -p " + half + " && ln -s " + half +
                       " half && cd -P half && mkdir -p " + half + " && cd -P " + half +
                       " && printf old >hosts"));
    const std::string far = link("far", "half/" + half + "/hosts");
    EXPECT_EQ(rewrite(far, "new", false), "none");
    EXPECT_TRUE(S_ISLNK(statusOf(far).st_mode));
    EXPECT_EQ(textOf(far), "new");
    EXPECT_TRUE(inside("cd -P half && cd -P " + half + " && test \"$(cat hosts.backup)\" = old"));

    const std::string decoy = file("decoy (deleted)", "kept");
    const UniqueFd open(::open(file("decoy").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::unlink(at("decoy").c_str()), 0);
    const std::string magic = "/proc/self/fd/" + std::to_string(open.get());
    EXPECT_EQ(rewrite(magic, "new", false), "ELOOP");
    EXPECT_EQ(textOf(decoy), "kept");
}

}  // namespace
}  // namespace corvalen
