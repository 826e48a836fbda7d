// SPDX-License-Identifier: MIT
// The table of platform/entry.hpp, row by row: what each operation does with links.
#include "fileops/operations_fixture.hpp"
#include "support/missing_calls.hpp"

namespace corvalen {
namespace {

class Links : public testing::OperationsTest {
  protected:
    void layOut() {
        ASSERT_TRUE(
            inside("rm -rf t && mkdir -p t/dir/sub t/other && cd t && touch -d @5 dir/file && "
                   "ln -s dir way && ln -s dir/file link && ln -s dir to-dir && "
                   "ln -s nowhere dangling"));
    }
    [[nodiscard]] std::string t(const std::string& name) const { return at("t/" + name); }
};

TEST_F(Links, AreFollowedOnTheWayAndAtTheEndAsTheTableSays) {
    const std::string list(
        "\2\0\0\0\1\0\7\0\xff\xff\xff\xff\4\0\5\0\xff\xff\xff\xff"
        "\x20\0\0\0\xff\xff\xff\xff",
        28);
    const struct {
        const char* operation;
        Array arguments;
        const char* result;
        const char* after;  // a command that succeeds in "t"
    } rows[] = {
        {"CreateFileobject", {t("way/new"), "F"}, "none", "test -f dir/new"},
        {"CreateFileobject", {t("link"), "F"}, "posix 17", "test -L link"},
        {"CreateFileobject", {t("dangling"), "F"}, "own 4 dangling", "test ! -e nowhere"},
        {"CreateFileobject", {t("dangling"), "D"}, "cocoa 516 <posix 17> dangling", "true"},
        {"CreateFileobject", {t("new/"), "D"}, "none", "test -d new"},
        {"CreateFileobject", {t("new/"), "F"}, "own 4 ", "test ! -e new"},
        {"CreateLink", {t("way/new"), "x", false}, "none", "test $(readlink dir/new) = x"},
        {"CreateLink", {t("dangling"), "x", false}, "cocoa 516 <posix 17> dangling", "true"},
        {"CreateLink", {t("new"), t("link"), true}, "none", "test -L new"},
        {"CreateLink", {t("new"), t("way/file"), true}, "none", "test new -ef dir/file"},
        {"RenameFileobject", {t("link"), t("way/new")}, "none", "test -L dir/new -a -s dir"},
        {"RenameFileobject", {t("way/file"), t("to-dir")}, "cocoa 516 <posix 17> to-dir", "true"},
        {"RenameFileobject", {t("to-dir/"), t("new")}, "cocoa 512 <posix 20> ", "test -L to-dir"},
        {"RenameFileobject", {t("dir/file/"), t("new")}, "cocoa 512 <posix 20> ", "true"},
        {"DeleteFileobjects", {"0", "1", t("way/file")}, "none", "test ! -e dir/file"},
        {"DeleteFileobjects", {"0", "1", t("link")}, "none", "test ! -L link -a -e dir/file"},
        {"DeleteFileobjects", {"1", "1", t("to-dir")}, "none", "test ! -L to-dir -a -e dir/file"},
        {"DeleteFileobjects", {"0", "1", t("dangling")}, "none", "test ! -L dangling"},
        {"ModifySystemfile",
         {t("link"), Data::copy("new"), false},
         "none",
         "test -L link -a -s dir/file -a -e dir/file.backup"},
        {"ModifySystemfile",
         {t("dangling"), Data::copy("x"), false},
         "posix 2",
         "test -L dangling"},
        {"ModifySystemfile", {t("to-dir"), Data::copy("x"), false}, "posix 21", "true"},
        {"TouchFileobject", {t("link")}, "none", "test dir/file -nt dir"},
        {"TouchFileobject", {t("dangling")}, "posix 2", "test ! -e nowhere"},
        {"ModifyHfsattr",
         {t("link"), 1, 2, false},
         "none",
         "test \"$(getfattr -m com.apple dir/file)\" || test -z \"$(command -v getfattr)\""},
        {"ModifyAcl", {t("link"), Data::copy(list)}, "none", "test $(stat -c %a dir/file) = 750"},
        {"ModifyProtection",
         {t("link"), true, false, false},
         "none",
         "lsattr dir/file | cut -d' ' -f1 | grep i && chattr -i dir/file"},
        {"DeleteFoldercontents", {t("to-dir")}, "none", "test -L to-dir -a -z \"$(ls -A dir)\""},
        {"DeleteFoldercontents", {t("link")}, "posix 20", "test -e dir/file"},
    };
    for (const auto& row : rows) {
        layOut();
        ASSERT_TRUE(inside("touch -d @6 t/dir"));
        EXPECT_EQ(call(row.operation, row.arguments), row.result) << row.operation << row.after;
        EXPECT_TRUE(inside(std::string("cd t && ") + row.after))
            << row.operation << ": " << row.after;
    }
}

TEST_F(Links, OfProcAreFollowedByTheKernelOnly) {
    layOut();
    const UniqueFd directory(::open(t("dir").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::string magic = "/proc/self/fd/" + std::to_string(directory.get());
    ASSERT_TRUE(inside("mv t/dir t/moved && mkdir t/dir && touch t/dir/file"));
    EXPECT_EQ(call("ModifySystemfile", {magic + "/file", Data::copy("new"), false}), "none");
    EXPECT_EQ(textOf(t("moved/file")), "new");
    EXPECT_EQ(call("TouchFileobject", {magic}), "none");
    EXPECT_EQ(call("CreateFileobject", {magic + "/made", "D"}), "none");
    EXPECT_TRUE(exists(t("moved/made")));
    EXPECT_EQ(call("DeleteFoldercontents", {magic}), "none");
    EXPECT_TRUE(exists(t("dir/file")));
    EXPECT_EQ(call("DeleteFileobjects", {"1", "1", magic}),
              "cocoa 513 <posix 1> " + magic.substr(14));
}

/// openat2(2) came with Linux 5.6.
TEST_F(Links, AndMountsAreKnownToOlderKernelsToo) {
    if (!mountTmpfs("size=1m")) GTEST_SKIP() << "cannot mount";
    ASSERT_TRUE(
        inside("mkdir -p top/bound/x kept && touch kept/file && mount --bind kept top/bound"));
    test::withAndWithout({SYS_openat2}, [this] {
        EXPECT_EQ(call("DeleteFileobjects", {"1", "1", at("top")}), "posix 16");
        EXPECT_TRUE(exists(at("kept/file")));
    });
    EXPECT_TRUE(inside("umount top/bound"));
}

}  // namespace
}  // namespace corvalen
