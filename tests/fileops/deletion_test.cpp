// SPDX-License-Identifier: MIT
#include <filesystem>
#include <thread>

#include "fileops/operations_fixture.hpp"
#include "foundation/cancellation.hpp"

namespace corvalen {
namespace {

using Fractions = std::vector<double>;

class Deletion : public testing::OperationsTest {
  protected:
    std::string remove(const char* recursive, const std::string& path) {
        return call("DeleteFileobjects", {recursive, "1", path});
    }
};

TEST_F(Deletion, OfASingleObjectClearsOnlyWhatMayBeCleared) {
    ASSERT_TRUE(
        inside("mknod hidden c 0 0 && touch target locked stuck both && "
               "chattr +i locked stuck both"));
    const std::string target = at("target");
    const std::string both = at("both");
    flags.systemLocked = {statusOf(both).st_ino};
    EXPECT_EQ(remove("0", at("hidden")), "hidden: whiteout");
    EXPECT_EQ(remove("0", std::string("/x\0y", 4)), "EINVAL");
    EXPECT_EQ(remove("0", at(std::string(300, 'l'))), "ENAMETOOLONG");
    EXPECT_EQ(remove("0", link("link", target)), "none");
    EXPECT_TRUE(exists(target));
    EXPECT_EQ(remove("0", at("locked")), "none");
    EXPECT_FALSE(exists(at("locked")));
    flags.changes = 0;
    EXPECT_EQ(remove("0", both), "both: single user mode");
    EXPECT_EQ(flags.changes, 0);
    EXPECT_TRUE(isImmutable(both));
    flags.failure = EROFS;
    EXPECT_EQ(remove("0", at("stuck")), "stuck: flags unchanged");
    EXPECT_EQ(remove("0", target), "none");  // no flag, no change
}

TEST_F(Deletion, OfATreeUnlocksAllOfItAndFollowsOnlyToUnlock) {
    ASSERT_TRUE(
        inside("mkdir -p top/sub linked && touch outside top/sub/file linked/file && "
               "ln -s ../outside top/to-outside && ln -s nowhere top/dangling && "
               "chattr +i top/sub/file top/sub top outside linked/file"));
    EXPECT_EQ(remove("1", at("top")), "none");
    EXPECT_FALSE(exists(at("top")));
    EXPECT_TRUE(exists(at("outside")));
    EXPECT_FALSE(isImmutable(at("outside")));

    EXPECT_EQ(remove("1", link("dangling", "nowhere")), "none");
    EXPECT_TRUE(exists(at("dangling")));

    EXPECT_EQ(remove("1", link("to-linked", "linked")), "none");
    EXPECT_FALSE(exists(at("to-linked")));
    EXPECT_TRUE(exists(at("linked/file")));
}

TEST_F(Deletion, OfATreeRemovesNothingWhenAFlagCannotBeCleared) {
    ASSERT_TRUE(inside("mkdir top && touch top/free top/locked && chattr +i top/locked"));
    flags.failure = EPERM;
    EXPECT_EQ(remove("1", at("top")), "EPERM");
    EXPECT_TRUE(exists(at("top/free")));
    flags.failure = 0;
    // Append-only is not cleared here.
    ASSERT_TRUE(inside("chattr -i top/locked && chattr +a top/locked"));
    EXPECT_EQ(remove("1", at("top")), "locked: no permission: EPERM");
    EXPECT_TRUE(exists(at("top/locked")));
}

TEST_F(Deletion, RefusesWhatRmRefusesAndEntersNoMount) {
    if (!mountTmpfs("size=1m")) GTEST_SKIP() << "cannot mount";
    ASSERT_TRUE(
        inside("mkdir -p dd/a mnt/top/bound mnt/kept && touch dd/x mnt/kept/file mnt/top/a && "
               "mount --bind mnt/kept mnt/top/bound"));
    for (const char* name : {"dd/a/..", "dd/.", "dd/a/../"})
        EXPECT_EQ(remove("1", at(name)), "EINVAL") << name;
    EXPECT_TRUE(exists(at("dd/x")));
    for (const char* name : {"mnt", "mnt/top", "mnt/top/bound"})
        EXPECT_EQ(remove("1", at(name)), "EBUSY") << name;
    EXPECT_EQ(call("DeleteFoldercontents", {at("mnt/top")}), "EBUSY");
    EXPECT_TRUE(exists(at("mnt/kept/file")));
    EXPECT_EQ(remove("1", link("to-dd", "dd") + "/"), "ENOTDIR");
    EXPECT_TRUE(exists(at("dd/x")));
}

TEST_F(Deletion, EndsBeforeTheNextObjectWhenNobodyWantsIt) {
    if (!mountTmpfs("size=64m")) GTEST_SKIP() << "cannot mount";
    constexpr std::ptrdiff_t kFiles = 30000;
    const std::string top = at("mnt/top");
    ASSERT_TRUE(
        inside("mkdir mnt/top && cd mnt/top && seq " + std::to_string(kFiles) + " | xargs touch"));
    Cancellation client;
    const CancellationScope scope(client);
    std::thread leaving([&] {
        while (client.objectCount() < 640)
            std::this_thread::yield();
        client.request();
    });
    EXPECT_EQ(remove("1", top), "ECANCELED");
    leaving.join();
    const auto left = [&] { return std::distance(std::filesystem::directory_iterator(top), {}); };
    const std::ptrdiff_t before = left();
    EXPECT_EQ(before, kFiles - static_cast<std::ptrdiff_t>(client.objectCount()));
    EXPECT_GT(before, 0);
    EXPECT_EQ(call("DeleteFoldercontents", {top}), "ECANCELED");
    EXPECT_EQ(call("ModifyProtection", {top, false, true, false}), "ECANCELED");
    EXPECT_EQ(call("RenameFileobject", {top, at("moved")}), "ECANCELED");
    EXPECT_EQ(left(), before);
    EXPECT_TRUE(inside("test \"$(ls -A)\" = mnt"));
}

TEST_F(Deletion, OfFolderContentsKeepsTheFolders) {
    ASSERT_TRUE(
        inside("mkdir -p one two/sub && touch one/.hidden one/locked && chattr +i one/locked"));
    file("two/sub/\xfe");
    EXPECT_EQ(call("DeleteFoldercontents", {at("one"), link("to-two", "two")}), "none");
    EXPECT_EQ(::rmdir(at("one").c_str()), 0);
    EXPECT_EQ(statusOf(at("two")).st_nlink, 2U);
    EXPECT_EQ(call("DeleteFoldercontents", {at("two"), file("file"), at("two")}), "ENOTDIR");
    EXPECT_EQ(feedback.fractions, (Fractions{0.0, 1.0 / 3}));
    ASSERT_TRUE(chattr("+a", file("two/kept")));
    EXPECT_EQ(call("DeleteFoldercontents", {at("two"), at("two")}), "kept: no permission: EPERM");
    EXPECT_EQ(feedback.fractions, (Fractions{0.0}));
}

}  // namespace
}  // namespace corvalen
