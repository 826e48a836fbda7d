// SPDX-License-Identifier: MIT
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

}  // namespace
}  // namespace corvalen
