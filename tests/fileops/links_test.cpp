// SPDX-License-Identifier: MIT
// The table of platform/files/entry.hpp, row by row: what each operation does with links and odd
// paths.
#include "fileops/file_object_info.hpp"
#include "fileops/operations_fixture.hpp"
#include "support/acl_bytes.hpp"
#include "support/missing_calls.hpp"

namespace corvalen {
namespace {

using namespace std::string_literals;

class Links : public testing::OperationsTest {
  protected:
    void layOut() {
        ASSERT_TRUE(
            inside("rm -rf t && mkdir -p t/dir/sub t/other && cd t && touch -d @5 dir/file && "
                   "ln -s dir way && ln -s dir/file link && ln -s dir to-dir && "
                   "ln -s nowhere dangling && ln -s loop loop && touch -d @6 dir"));
    }
    [[nodiscard]] std::string t(const std::string& name) const { return at("t/" + name); }
};

TEST_F(Links, AreFollowedOnTheWayAndAtTheEndAsTheTableSays) {
    const Data list = Data::copy(test::aclBytes({{1, 7}, {4, 5}, {32, 0}}));
    const Data text = Data::copy("new");
    const struct {
        const char* operation;
        Array arguments;
        std::string result;
        const char* after = "true";  // a command that succeeds in "t"
    } rows[] = {
        {"CreateFileobject", {t("way/new"), "F"}, "none", "test -f dir/new"},
        {"CreateFileobject", {t("link"), "F"}, "EEXIST", "test -L link"},
        {"CreateFileobject", {t("to-dir"), "D"}, "EEXIST", "test -L to-dir"},
        {"CreateFileobject", {t("dangling"), "F"}, "dangling: not created", "test ! -e nowhere"},
        {"CreateFileobject", {t("dangling"), "D"}, "dangling: exists: EEXIST"},
        {"CreateFileobject", {t("new/"), "D"}, "none", "test -d new"},
        {"CreateFileobject", {t("new/"), "F"}, "/: not created", "test ! -e new"},
        {"CreateFileobject", {t("new\0x"s), "F"}, "EINVAL", "test ! -e new"},
        {"CreateFileobject", {t("new"), "FD"}, "EINVAL", "test ! -e new"},
        {"CreateLink", {t("way/new"), "x", false}, "none", "test $(readlink dir/new) = x"},
        {"CreateLink", {t("dangling"), "x", false}, "dangling: exists: EEXIST"},
        {"CreateLink", {t("new"), t("link"), true}, "none", "test -L new"},
        {"CreateLink", {t("new"), t("way/file"), true}, "none", "test new -ef dir/file"},
        {"CreateLink", {t("new"), t("none"), true}, "none: no such file: ENOENT", "test ! -e new"},
        {"CreateLink", {t("new"), "a\0b"s, false}, "EINVAL", "test ! -L new"},
        {"RenameFileobject", {t("link"), t("way/new")}, "none", "test -L dir/new -a -s dir"},
        {"RenameFileobject", {t("way/file"), t("to-dir")}, "to-dir: exists: EEXIST"},
        {"RenameFileobject", {t("to-dir/"), t("new")}, "/: not written: ENOTDIR", "test -L to-dir"},
        {"RenameFileobject", {t("dir/file/"), t("new")}, "/: not written: ENOTDIR"},
        {"RenameFileobject", {t("dir"), t("dir/new")}, "dir: not written: EINVAL", "test -d dir"},
        {"RenameFileobject", {"", t("new")}, "no such file: ENOENT"},
        {"DeleteFileobjects", {"0", "1", t("way/file")}, "none", "test ! -e dir/file"},
        {"DeleteFileobjects", {"0", "1", t("link")}, "none", "test ! -L link -a -e dir/file"},
        {"DeleteFileobjects", {"1", "1", t("to-dir")}, "none", "test ! -L to-dir -a -e dir/file"},
        {"DeleteFileobjects", {"0", "1", t("dangling")}, "none", "test ! -L dangling"},
        {"ModifySystemfile", {t("link"), text, false}, "none", "test -L link -a -s dir/file"},
        {"ModifySystemfile", {t("dangling"), text, false}, "ENOENT", "test -L dangling"},
        {"ModifySystemfile", {t("to-dir"), text, false}, "EISDIR"},
        {"TouchFileobject", {t("link")}, "none", "test dir/file -nt dir"},
        {"TouchFileobject", {t("dangling")}, "ENOENT", "test ! -e nowhere"},
        {"ModifyHfsattr",
         {t("link"), 1, 2, false},
         "none",
         "test \"$(getfattr -m com.apple dir/file)\" || test -z \"$(command -v getfattr)\""},
        {"ModifyAcl", {t("link"), list}, "none", "test $(stat -c %a dir/file) = 750"},
        {"ModifyProtection",
         {t("link"), true, false, false},
         "none",
         "lsattr dir/file | cut -d' ' -f1 | grep i && chattr -i dir/file"},
        {"DeleteFoldercontents", {t("to-dir")}, "none", "test -L to-dir -a -z \"$(ls -A dir)\""},
        {"DeleteFoldercontents", {t("link")}, "ENOTDIR", "test -e dir/file"},
        {"InspectFileobject", {"\0"s}, "EINVAL"},
    };
    for (const auto& row : rows) {
        layOut();
        EXPECT_EQ(call(row.operation, row.arguments), row.result) << row.operation << row.after;
        EXPECT_TRUE(inside(std::string("cd t && ") + row.after))
            << row.operation << ": " << row.after;
    }
    for (const auto& [name, existence] : {std::pair("to-dir", 1), {"link", 2}, {"loop", 0}}) {
        answer = operations.performOperationInspectFileobjectWithArguments({t(name)});
        EXPECT_EQ(*answer->userInfo(), (Dictionary{{"ObjectExistence", existence}})) << name;
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
              magic.substr(14) + ": no permission: EPERM");
}

/// openat2(2) came with Linux 5.6.
TEST_F(Links, AndMountsAreKnownToOlderKernelsToo) {
    if (!mountTmpfs("size=1m")) GTEST_SKIP() << "cannot mount";
    ASSERT_TRUE(
        inside("mkdir -p top/bound/x kept && touch kept/file && mount --bind kept top/bound"));
    test::withAndWithout({SYS_openat2}, [this] {
        EXPECT_EQ(call("DeleteFileobjects", {"1", "1", at("top")}), "EBUSY");
        EXPECT_TRUE(exists(at("kept/file")));
    });
    EXPECT_TRUE(inside("umount top/bound"));
}

TEST_F(Links, AreThemselvesDescribedInARecord) {
    Array records;
    link("link", "12345");
    const std::string path = file("file", "1234");
    ASSERT_TRUE(inside("chmod 4711 file && touch -d @77.123456789 file"));
    for (const std::string& one : {at("link"), path, at("gone"), std::string()})
        addFileSystemObjectInfoDictionaryToArray(&records, one);
    addFileSystemObjectInfoDictionaryToArray(nullptr, path);
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(*records[0].dictionary()->find("Type"), Value("NSFileTypeSymbolicLink"));
    EXPECT_EQ(records[1], Value(Dictionary{{"Path", path},
                                           {"Type", "NSFileTypeRegular"},
                                           {"Size", 4},
                                           {"ModificationDate", Date{77, 123456789}},
                                           {"Mode", 04711}}));
    EXPECT_EQ(FileOperations::fileSystemIDForPath(path),
              static_cast<std::uint32_t>(statusOf(path).st_dev));
    EXPECT_EQ(FileOperations::fileSystemIDForPath(at("gone")), 0xFFFFFFFFU);
}

}  // namespace
}  // namespace corvalen
