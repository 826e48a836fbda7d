// SPDX-License-Identifier: MIT
// Flags, attributes, lists, and a file of the system with all it has.
#include <sys/xattr.h>

#include "fileops/operations_fixture.hpp"

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
    ASSERT_TRUE(inside("mkdir folder && touch target folder/file && ln -s target link"));
    EXPECT_EQ(call("ModifyProtection", {at("link"), true, true, false}), "none");
    EXPECT_TRUE(isImmutable(at("target")));
    EXPECT_EQ(call("ModifyProtection", {at("folder"), true, false, false}), "none");
    EXPECT_FALSE(isImmutable(at("folder/file")));
    EXPECT_EQ(call("ModifyProtection", {link("dangling", "none"), true, false, false}), "posix 2");
    EXPECT_TRUE(operations.setImmutableFlag(true, at("dangling"), false));
    EXPECT_EQ(call("ModifyProtection", {"", true, false, false}), "posix 22");
    EXPECT_EQ(call("ModifyProtection", {"/proc/version", true, false, false}), "posix 45");
    EXPECT_EQ(call("ModifyProtection", {"/proc/version", false, false, false}), "none");
    flags.failure = EIO;
    EXPECT_EQ(call("ModifyProtection", {_top, true, true, false}), "posix 5");
}

TEST_F(Protection, PassesOverWhatCarriesNoFlagBelowTheTop) {
    ASSERT_TRUE(
        inside("mkdir t && cd t && touch a z && mkfifo pipe && ln -s /dev/null null && "
               "mknod device c 1 3"));
    EXPECT_EQ(call("ModifyProtection", {at("t"), true, true, false}), "none");
    for (const char* name : {"t", "t/a", "t/z"})
        EXPECT_TRUE(isImmutable(at(name))) << name;
    EXPECT_EQ(call("ModifyProtection", {at("t/pipe"), true, false, false}), "posix 45");
    EXPECT_EQ(call("ModifyProtection", {at("t/null"), true, false, false}), "posix 45");
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

TEST_F(Protection, ClassicAttributesFollowALink) {
    const std::string target = file("target");
    EXPECT_EQ(call("ModifyHfsattr", {link("link", "target"), 1, 2, true}), "none");
    EXPECT_EQ(::getxattr(target.c_str(), "user.com.apple.FinderInfo", nullptr, 0), 32);
    EXPECT_EQ(call("ModifyHfsattr", {at("none"), 1, 2, true}), "cocoa 4 <posix 2> none");
}

TEST_F(Protection, AnAccessListIsCheckedBeforeTheSystemSeesIt) {
    const std::string path = file("file");
    const std::string bytes(
        "\2\0\0\0"
        "\1\0\6\0\xff\xff\xff\xff"
        "\2\0\6\0\7\0\0\0"
        "\4\0\4\0\xff\xff\xff\xff"
        "\x10\0\6\0\xff\xff\xff\xff"
        "\x20\0\0\0\xff\xff\xff\xff",
        44);
    const Data list = Data::copy(bytes);
    EXPECT_EQ(call("ModifyAcl", {path, Data::copy(bytes.substr(0, 36))}), "posix 22");
    EXPECT_EQ(call("ModifyAcl", {"", list}), "posix 22");
    EXPECT_EQ(modeOf(path), 0644U);
    EXPECT_EQ(call("ModifyAcl", {path, list}), "none");
    EXPECT_TRUE(testing::shell("getfacl -cn '" + path + "' | grep -qx user:7:rw-"));
}

TEST_F(Protection, AnAccessListReplacesOrSetsWhatADirectoryHandsDown) {
    const std::string path = folder("folder");
    const std::string access(
        "\2\0\0\0\1\0\7\0\xff\xff\xff\xff\4\0\5\0\xff\xff\xff\xff"
        "\x20\0\0\0\xff\xff\xff\xff",
        28);
    const auto handedDown = [&] { return inside("getfacl -dcn folder | grep -q other::---"); };
    ASSERT_TRUE(inside("setfacl -d -m u:7:rwx folder"));
    EXPECT_EQ(call("ModifyAcl", {path, Data::copy(access)}), "none");
    EXPECT_TRUE(inside("test -z \"$(getfacl -dcn folder)\""));
    EXPECT_EQ(call("ModifyAcl", {path, Data::copy(access + access)}), "none");
    EXPECT_TRUE(handedDown());
    EXPECT_EQ(call("ModifyAcl", {path, Data::copy(access + access.substr(0, 20))}), "posix 22");
    EXPECT_EQ(call("ModifyAcl", {path, Data::copy(access + access + access)}), "posix 22");
    EXPECT_TRUE(handedDown());
    EXPECT_EQ(call("ModifyAcl", {file("file"), Data::copy(access + access)}), "posix 22");
    EXPECT_EQ(modeOf(at("file")), 0644U);
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
    EXPECT_EQ(rewrite("", "x", false), "posix 22");
    EXPECT_EQ(rewrite(at("none"), "x", false), "posix 2");
    EXPECT_EQ(rewrite(folder("folder"), "x", false), "posix 21");
    EXPECT_EQ(call("ModifySystemfile", {target, "text", false}), "posix 22");
    folder("hosts.backup");
    EXPECT_EQ(rewrite(target, "x", true), "own 5 hosts.backup");
    ASSERT_EQ(::rmdir(at("hosts.backup").c_str()), 0);
    ASSERT_TRUE(chattr("+i", target));
    EXPECT_EQ(rewrite(target, "x", true), "own 18 <cocoa 513 <posix 1> hosts> hosts");
    EXPECT_EQ(textOf(target), "old");
    ASSERT_TRUE(chattr("-i", target));
    link("hosts.backup", "nowhere");
    EXPECT_EQ(rewrite(target, "x", true), "own 18 <cocoa 516 <posix 17> hosts.backup> hosts");
    EXPECT_EQ(textOf(target), "old");
}

TEST_F(SystemFile, IsCutShortWithoutAWordWhenTheDiskIsFullAndTheBackupStays) {
    if (!mountTmpfs("size=16k")) GTEST_SKIP() << "cannot mount";
    const std::string target = file("mnt/hosts", "old");
    ASSERT_EQ(::chmod(target.c_str(), 0600), 0);
    EXPECT_EQ(rewrite(target, std::string(100000, 'n'), true), "none");
    EXPECT_LT(statusOf(target).st_size, 100000);
    EXPECT_EQ(modeOf(target), 0600U);
    EXPECT_EQ(textOf(target + ".backup"), "old");
}

TEST_F(SystemFile, TakesNothingFromTheListOfItsDirectory) {
    ASSERT_TRUE(
        inside("mkdir etc && touch etc/hosts && chmod 640 etc/hosts && "
               "setfacl -d -m u:1234:rwx,g::rwx etc"));
    EXPECT_EQ(rewrite(at("etc/hosts"), "new", true), "none");
    EXPECT_TRUE(inside("test -z \"$(getfacl -s etc/hosts)\""));
    EXPECT_EQ(modeOf(at("etc/hosts")), 0640U);
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
    EXPECT_EQ(rewrite(magic, "new", false), "posix 62");
    EXPECT_EQ(textOf(decoy), "kept");
}

}  // namespace
}  // namespace corvalen
