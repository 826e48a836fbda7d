// SPDX-License-Identifier: MIT
#include <sys/sysmacros.h>

#include "fileops/operations_fixture.hpp"

namespace corvalen {
namespace {

using Fractions = std::vector<double>;

class Deletion : public testing::OperationsTest {
  protected:
    std::string remove(const char* recursive, const std::string& path) {
        return call("DeleteFileobjects", {recursive, "1", path});
    }
};

TEST_F(Deletion, ReportsProgressAfterEachPath) {
    const auto paths = [this](const char* recursive, const char* stop) {
        file("a");
        file("c");
        return Array{recursive, stop, at("a"), at("b"), at("c")};
    };
    EXPECT_EQ(call("DeleteFileobjects", paths("0", "0")), "none");
    EXPECT_EQ(feedback.fractions, (Fractions{1.0 / 3, 2.0 / 3, 1.0, 1.0}));
    EXPECT_FALSE(exists(at("c")));
    EXPECT_EQ(call("DeleteFileobjects", paths("0", "1")), "posix 2");
    EXPECT_EQ(feedback.fractions, (Fractions{1.0 / 3}));
    EXPECT_TRUE(exists(at("c")));
    EXPECT_EQ(call("DeleteFileobjects", {"1", "0"}), "posix 22");

    folder("full");
    file("full/x");
    EXPECT_EQ(call("DeleteFileobjects", {"yes", "1", at("full")}), "posix 66");
}

TEST_F(Deletion, OfASingleObjectClearsOnlyWhatMayBeCleared) {
    ASSERT_EQ(::mknod(at("hidden").c_str(), S_IFCHR, makedev(0, 0)), 0);
    const std::string target = file("target");
    const std::string locked = file("locked");
    const std::string stuck = file("stuck");
    const std::string both = file("both");
    flags.systemLocked = {statusOf(both).st_ino};
    for (const std::string& path : {locked, stuck, both})
        ASSERT_TRUE(chattr("+i", path));
    EXPECT_EQ(remove("0", at("hidden")), "own 6 hidden");
    EXPECT_EQ(remove("0", std::string("/x\0y", 4)), "posix 22");
    EXPECT_EQ(remove("0", at(std::string(300, 'l'))), "posix 63");
    EXPECT_EQ(remove("0", link("link", target)), "none");
    EXPECT_TRUE(exists(target));
    EXPECT_EQ(remove("0", locked), "none");
    EXPECT_FALSE(exists(locked));
    flags.changes = 0;
    EXPECT_EQ(remove("0", both), "own 8 both");
    EXPECT_EQ(flags.changes, 0);
    EXPECT_TRUE(isImmutable(both));
    flags.failure = EROFS;
    EXPECT_EQ(remove("0", stuck), "own 7 stuck");
    EXPECT_EQ(remove("0", target), "none");  // no flag, no change
}

TEST_F(Deletion, OfATreeUnlocksAllOfItAndFollowsOnlyToUnlock) {
    folder("top");
    folder("top/sub");
    const std::string outside = file("outside");
    link("top/to-outside", outside);
    link("top/dangling", "nowhere");
    ASSERT_TRUE(chattr("+i", file("top/sub/file")));
    for (const std::string& path : {at("top/sub"), at("top"), outside})
        ASSERT_TRUE(chattr("+i", path));
    EXPECT_EQ(remove("1", at("top")), "none");
    EXPECT_FALSE(exists(at("top")));
    EXPECT_TRUE(exists(outside));
    EXPECT_FALSE(isImmutable(outside));

    EXPECT_EQ(remove("1", link("dangling", "nowhere")), "none");
    EXPECT_TRUE(exists(at("dangling")));

    folder("linked");
    ASSERT_TRUE(chattr("+i", file("linked/file")));
    EXPECT_EQ(remove("1", link("to-linked", "linked")), "none");
    EXPECT_FALSE(exists(at("to-linked")));
    EXPECT_TRUE(exists(at("linked/file")));
}

TEST_F(Deletion, OfATreeRemovesNothingWhenAFlagCannotBeCleared) {
    folder("top");
    file("top/free");
    ASSERT_TRUE(chattr("+i", file("top/locked")));
    flags.failure = EPERM;
    EXPECT_EQ(remove("1", at("top")), "posix 1");
    EXPECT_TRUE(exists(at("top/free")));
    flags.failure = 0;
    ASSERT_TRUE(chattr("-i", at("top/locked")));
    ASSERT_TRUE(chattr("+a", at("top/locked")));  // append-only is not cleared here
    EXPECT_EQ(remove("1", at("top")), "cocoa 513 <posix 1> locked");
    EXPECT_TRUE(exists(at("top/locked")));
}

TEST_F(Deletion, OfFolderContentsKeepsTheFoldersAndReportsBeforeEach) {
    for (const char* name : {"one", "two", "two/sub"})
        folder(name);
    file("one/.hidden");
    file("two/sub/\xfe");
    ASSERT_TRUE(chattr("+i", file("one/locked")));
    EXPECT_EQ(call("DeleteFoldercontents", {at("one"), link("to-two", "two")}), "none");
    EXPECT_EQ(feedback.fractions, (Fractions{0.0, 0.5, 1.0}));
    EXPECT_EQ(::rmdir(at("one").c_str()), 0);
    EXPECT_EQ(statusOf(at("two")).st_nlink, 2U);

    file("two/again");
    EXPECT_EQ(call("DeleteFoldercontents", {at("missing"), at("two")}), "none");
    EXPECT_FALSE(exists(at("two/again")));
    EXPECT_EQ(call("DeleteFoldercontents", {at("two"), file("file"), at("two")}), "posix 20");
    EXPECT_EQ(feedback.fractions, (Fractions{0.0, 1.0 / 3}));

    ASSERT_TRUE(chattr("+a", file("two/kept")));
    EXPECT_EQ(call("DeleteFoldercontents", {at("two"), at("two")}), "cocoa 513 <posix 1> kept");
    EXPECT_EQ(feedback.fractions, (Fractions{0.0}));
}

}  // namespace
}  // namespace corvalen
