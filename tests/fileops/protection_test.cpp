// SPDX-License-Identifier: MIT
#include <sys/xattr.h>

#include "fileops/operations_fixture.hpp"

namespace corvalen {
namespace {

class Protection : public testing::OperationsTest {};

TEST_F(Protection, OfATreeStaysOnItsVolumeWhenAsked) {
    if (!mountTmpfs("size=1m")) GTEST_SKIP() << "cannot mount";
    file("file");
    file("mnt/inner");
    folder("folder");
    link("dangling", "nowhere");
    EXPECT_EQ(call("ModifyProtection", {_top, true, true, true}), "none");
    for (const char* name : {"", "file", "folder"})
        EXPECT_TRUE(isImmutable(at(name))) << name;
    EXPECT_FALSE(isImmutable(at("mnt")));
    EXPECT_FALSE(isImmutable(at("mnt/inner")));
    EXPECT_EQ(call("ModifyProtection", {_top, true, true, false}), "none");
    EXPECT_TRUE(isImmutable(at("mnt/inner")));
    flags.changes = 0;
    EXPECT_EQ(call("ModifyProtection", {_top, true, true, false}), "none");
    EXPECT_EQ(flags.changes, 0);
    EXPECT_EQ(call("ModifyProtection", {_top, false, true, false}), "none");
    EXPECT_FALSE(isImmutable(at("mnt/inner")));
    EXPECT_FALSE(isImmutable(at("file")));
}

TEST_F(Protection, FollowsOneLinkAndFailsAsTheFlagsDo) {
    const std::string target = file("target");
    folder("folder");
    file("folder/file");
    EXPECT_EQ(call("ModifyProtection", {link("link", "target"), true, true, false}), "none");
    EXPECT_TRUE(isImmutable(target));
    EXPECT_EQ(call("ModifyProtection", {at("folder"), true, false, false}), "none");
    EXPECT_FALSE(isImmutable(at("folder/file")));
    EXPECT_EQ(call("ModifyProtection", {link("dangling", "none"), true, false, false}), "posix 2");
    EXPECT_EQ(call("ModifyProtection", {"", true, false, false}), "posix 22");
    EXPECT_EQ(call("ModifyProtection", {"/proc/version", true, false, false}), "posix 45");
    EXPECT_EQ(call("ModifyProtection", {"/proc/version", false, false, false}), "none");
    ErrorRef error;
    EXPECT_TRUE(operations.setImmutableFlag(true, at("dangling"), false, &error));
    EXPECT_FALSE(operations.setImmutableFlag(true, at("dangling"), true, &error));
    EXPECT_EQ(testing::summary(error), "posix 2");
    flags.failure = EIO;
    EXPECT_EQ(call("ModifyProtection", {_top, true, true, false}), "posix 5");
}

TEST_F(Protection, OfATreeSurvives5000Levels) {
    if (!mountTmpfs("size=1g")) GTEST_SKIP() << "cannot mount";
    UniqueFd level(::open(folder("mnt/deep").c_str(), O_DIRECTORY | O_CLOEXEC));
    for (int i = 0; i < 5000; ++i) {
        ASSERT_EQ(::mkdirat(level.get(), "d", 0755), 0);
        level.reset(::openat(level.get(), "d", O_DIRECTORY | O_CLOEXEC));
    }
    EXPECT_EQ(call("ModifyProtection", {at("mnt/deep"), true, true, true}), "none");
    EXPECT_EQ(flags.changes, 5001);
    EXPECT_EQ(call("DeleteFileobjects", {"1", "1", at("mnt/deep")}), "none");
    EXPECT_FALSE(exists(at("mnt/deep")));
}

TEST_F(Protection, ClassicAttributesFollowALinkAndKeepTheCodes) {
    const std::string target = file("target");
    EXPECT_EQ(call("ModifyHfsattr", {link("link", "target"), 0x54455854, 0x74747874, true}),
              "none");
    char bytes[64] = {};
    ASSERT_EQ(::getxattr(target.c_str(), "user.com.apple.FinderInfo", bytes, sizeof bytes), 32);
    EXPECT_EQ(std::string(bytes, 9), "TEXTttxt\x40");
    EXPECT_EQ(call("ModifyHfsattr", {at("none"), 1, 2, true}), "cocoa 4 <posix 2> none");
    EXPECT_EQ(call("ModifyHfsattr", {"", 1, 2, true}), "posix 22");
    EXPECT_EQ(call("ModifyHfsattr", {"/proc/version", 1, 2, true}), "cocoa 512 <posix 45> version");
}

TEST_F(Protection, AnAccessListIsCheckedBeforeTheSystemSeesIt) {
    const std::string path = file("file");
    std::vector<std::uint8_t> list = {2, 0, 0, 0};
    for (const auto& [tag, permissions, id] : std::vector<std::tuple<int, int, int>>{
             {1, 6, -1}, {2, 6, 7}, {4, 4, -1}, {16, 6, -1}, {32, 0, -1}}) {
        const auto byte = static_cast<std::uint8_t>(id);
        const std::uint8_t high = id < 0 ? 0xFF : 0;
        for (const int part : {tag, 0, permissions, 0})
            list.push_back(static_cast<std::uint8_t>(part));
        list.insert(list.end(), {byte, high, high, high});
    }
    EXPECT_EQ(call("ModifyAcl", {path, Data{}}), "posix 22");
    EXPECT_EQ(call("ModifyAcl", {"", Data{list}}), "posix 22");
    EXPECT_EQ(call("ModifyAcl", {path, Data{{list.begin(), list.end() - 8}}}), "posix 22");
    EXPECT_EQ(call("ModifyAcl", {at("none"), Data{list}}), "posix 2");
    EXPECT_EQ(modeOf(path), 0644U);
    EXPECT_EQ(call("ModifyAcl", {path, Data{list}}), "none");
    EXPECT_TRUE(testing::shell("getfacl -cn '" + path + "' | grep -qx user:7:rw-"));
}

}  // namespace
}  // namespace corvalen
