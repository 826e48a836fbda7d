// SPDX-License-Identifier: MIT
// What has reached the disk when an operation replies. The program's own fsync(2) and syncfs(2)
// replace those of the library, record their calls, and fail on demand.
#include <sys/syscall.h>

#include <climits>

#include "fileops/operations_fixture.hpp"

namespace {

std::vector<std::string> synced;
/// The number of calls before the one that fails with EIO; -1 for no failure.
int failing = -1;

int sync(long number, int descriptor) {
    char path[PATH_MAX] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    (void)!::readlink(link.c_str(), path, sizeof path - 1);
    synced.push_back(std::string(path).substr(std::string(path).rfind('/') + 1));
    if (failing-- == 0) {
        errno = EIO;
        return -1;
    }
    return static_cast<int>(::syscall(number, descriptor));
}

}  // namespace

extern "C" {
int fsync(int descriptor) {
    return sync(SYS_fsync, descriptor);
}
int syncfs(int descriptor) noexcept {
    return sync(SYS_syncfs, descriptor);
}
}

namespace corvalen {
namespace {

using Names = std::vector<std::string>;

class Synced : public testing::OperationsTest {
  protected:
    Names namesOf(const char* operation, const Array& arguments, const char* result = "none") {
        synced.clear();
        EXPECT_EQ(call(operation, arguments), result);
        for (std::string& name : synced)
            if (name.starts_with(".corvalen-")) name = "private";
        return synced;
    }
};

TEST_F(Synced, IsWhatAnOperationHasMadeAndItsName) {
    if (!mountTmpfs("size=1m")) GTEST_SKIP() << "cannot mount";
    ASSERT_TRUE(inside("mkdir a b a/tree a/tree/x && touch a/old a/one"));
    const std::string top = _top.substr(_top.rfind('/') + 1);
    EXPECT_EQ(namesOf("CreateFileobject", {at("a/new"), "F"}), (Names{"new", "a"}));
    EXPECT_EQ(namesOf("CreateFileobject", {at("a/dir"), "D"}), (Names{"dir", "a"}));
    EXPECT_EQ(namesOf("CreateLink", {at("a/link"), "nowhere", false}), (Names{"a"}));
    EXPECT_EQ(namesOf("CreateLink", {at("b/hard"), at("a/old"), true}), (Names{"b"}));
    EXPECT_EQ(namesOf("RenameFileobject", {at("a/old"), at("b/old")}), (Names{"b", "a"}));
    EXPECT_EQ(namesOf("RenameFileobject", {at("a/one"), at("mnt/one")}),
              (Names{"copy", "mnt", "a"}));
    EXPECT_EQ(namesOf("RenameFileobject", {at("a/tree"), at("mnt/tree")}),
              (Names{"private", "mnt", "a"}));
}

TEST_F(Synced, IsASystemFileBeforeItsOldContentGoes) {
    ASSERT_TRUE(inside("mkdir etc && printf old >etc/hosts"));
    const std::string target = at("etc/hosts");
    const Array arguments{target, Data::copy("new"), true};
    // The old content, the new content, the names, and the end of the backup.
    EXPECT_EQ(namesOf("ModifySystemfile", arguments), (Names{"hosts", "hosts", "etc", "etc"}));
    EXPECT_FALSE(exists(target + ".backup"));
    failing = 0;
    EXPECT_EQ(namesOf("ModifySystemfile", arguments, "hosts: protected: not written: EIO"),
              Names{"hosts"});
    EXPECT_EQ(textOf(target), "new");
    for (const int call : {1, 2}) {
        failing = call;
        EXPECT_EQ(namesOf("ModifySystemfile", arguments, "hosts: not written: EIO").size(),
                  static_cast<std::size_t>(call) + 1);
        EXPECT_EQ(textOf(target + ".backup"), "new");
    }
}

}  // namespace
}  // namespace corvalen
