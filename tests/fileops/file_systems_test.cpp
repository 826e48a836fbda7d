// SPDX-License-Identifier: MIT
// The operations on each file system of file_systems.txt, and on a device that fails. What differs
// from one to the next stands in docs/platforms.md.
#include <sys/resource.h>
#include <sys/xattr.h>

#include <algorithm>

#include "fileops/operations_fixture.hpp"
#include "support/open_descriptors.hpp"

namespace corvalen {
namespace {

constexpr const char* kNone = "none";
constexpr const char* kNotKept = "EOPNOTSUPP";

class OnFileSystem : public testing::FileOperationsTest,
                     public ::testing::WithParamInterface<testing::Row> {
  protected:
    void SetUp() override {
        FileOperationsTest::SetUp();
        if (IsSkipped()) return;
        if (!mountTmpfs("size=1g") || !inside("cd mnt && mkdir fs && " + GetParam().one("mount")))
            GTEST_SKIP() << GetParam().name << " cannot be mounted here";
    }
    void TearDown() override {
        (void)inside("chattr -R -i mnt/fs; umount mnt/fs");
        FileOperationsTest::TearDown();
    }

    [[nodiscard]] std::string in(const std::string& name) const { return at("mnt/fs/" + name); }
    static bool keeps(const char* what) {
        return GetParam().one("lacks").find(what) == std::string::npos;
    }
    /// A tree with what not every file system keeps.
    [[nodiscard]] bool layOut(const std::string& top) const {
        return inside("mkdir -p " + top + "/t/sub && cd " + top +
                      " && printf text >t/sub/file && touch t/a t/b && "
                      "{ setfattr -n user.note -v n t/sub/file; setfacl -m u:7:rw t/sub/file; "
                      "ln -s .. t/link; chown 12:13 t/a; chmod 4755 t/a; true; }");
    }
};

TEST_P(OnFileSystem, LocksAndRemoves) {
    ASSERT_TRUE(layOut("mnt/fs"));
    const bool locks = keeps("locks");
    EXPECT_EQ(call("ModifyProtection", {in("t"), true, true, true}), locks ? kNone : kNotKept);
    EXPECT_EQ(isImmutable(in("t/sub/file")), locks);
    EXPECT_EQ(call("ModifyProtection", {in("t"), false, true, true}), kNone);
    EXPECT_FALSE(isImmutable(in("t/sub/file")));
    (void)call("ModifyProtection", {in("t"), true, true, true});
    EXPECT_EQ(call("DeleteFileobjects", {"0", "1", in("t/b")}), locks ? "EPERM" : kNone)
        << "the directory is locked";
    EXPECT_EQ(call("DeleteFileobjects", {"1", "1", in("t")}), kNone);
    EXPECT_FALSE(exists(in("t")));
    ASSERT_TRUE(layOut("mnt/fs"));
    EXPECT_EQ(call("DeleteFoldercontents", {in("t")}), kNone);
    EXPECT_TRUE(inside("rmdir mnt/fs/t"));
}

TEST_P(OnFileSystem, TakesAndGivesATree) {
    ASSERT_TRUE(layOut("mnt"));
    ASSERT_TRUE(inside("touch -d @1000 mnt/t/sub/file && rm -f mnt/t/link"));
    EXPECT_EQ(call("RenameFileobject", {at("mnt/t"), in("t")}), kNone);
    EXPECT_EQ(textOf(in("t/sub/file")), "text");
    EXPECT_EQ(statusOf(in("t/sub/file")).st_mtim.tv_sec, 1000);
    EXPECT_EQ(describedAt(in("t/a")) == "12:13 4755", keeps("owners"));
    EXPECT_EQ(call("RenameFileobject", {in("t"), at("mnt/back")}), kNone);
    EXPECT_EQ(textOf(at("mnt/back/sub/file")), "text");
    EXPECT_EQ((statusOf(at("mnt/back/a")).st_mode & S_ISUID) != 0, keeps("owners"));
    EXPECT_TRUE(inside("test \"$(ls -A mnt/fs | grep -v lost+found)\" = ''"));
}

TEST_P(OnFileSystem, ChangesWhatItKeeps) {
    ASSERT_TRUE(layOut("mnt/fs"));
    const std::string path = in("t/sub/file");
    const Data list = Data::copy(test::aclOf("u::rw-,u:7:rw-,g::r--,m::rw-,o::---"));
    EXPECT_EQ(call("ModifyAcl", {path, list}), keeps("access lists") ? kNone : kNotKept);
    // On some file systems this depends on the kernel: tmpfs has attributes of users since 6.6.
    const bool keepsAttributes = inside("setfattr -n user.note -v n mnt/fs/t/sub/file");
    EXPECT_EQ(call("ModifyHfsattr", {path, 1, 2, true}),
              keepsAttributes ? kNone : "file: not written: EOPNOTSUPP");
    EXPECT_EQ(call("TouchFileobject", {path}), kNone);
    EXPECT_EQ(call("ModifySystemfile", {path, Data::copy("new"), false}), kNone);
    EXPECT_EQ(textOf(path), "new");
    EXPECT_EQ(textOf(path + ".backup"), "text");
    const char* created = keeps("objects of root") ? kNone : "EPERM";
    EXPECT_EQ(call("CreateFileobject", {in("t/d"), "D"}), created);
    EXPECT_EQ(call("CreateFileobject", {in("t/x"), "X"}), created);
    EXPECT_EQ(call("RenameFileobject", {in("t/x"), in("t/y")}), kNone);
    EXPECT_EQ(call("RenameFileobject", {in("t/y"), in("t/a")}), "a: exists: EEXIST");
    EXPECT_EQ(call("PropPermissions", {in("t"), 5, true, 0x0e}), kNone);
}

TEST_P(OnFileSystem, IsSearchedAndMeasured) {
    ASSERT_TRUE(layOut("mnt/fs"));
    ASSERT_TRUE(inside("rm -f mnt/fs/t/link"));
    // All of them stay on the file system.
    const testing::Names all{"mnt/fs/t/a", "mnt/fs/t/b", "mnt/fs/t/sub", "mnt/fs/t/sub/file"};
    EXPECT_EQ(call("SearchAgedfiles", {in("t"), 0, true}), kNone);
    EXPECT_EQ(feedback.found, all);
    EXPECT_EQ(call("SearchPatterns", {in("t"), "1", "0", "file"}), kNone);
    EXPECT_EQ(feedback.found, testing::Names{"mnt/fs/t/sub/file"});
    EXPECT_EQ(call("SearchFilenames", {in("t"), "", "", true}), kNone);
    EXPECT_EQ(feedback.found, testing::Names{"mnt/fs/t/sub"});
    EXPECT_EQ(call("SearchFileorphans", {in("t"), true}), kNone);
    EXPECT_EQ(call("InspectStoragesize", {in("t")}), "answer");
    EXPECT_EQ(answer->userInfo()->size(), 1U);
    EXPECT_GE(answer->userInfo()->begin()->value.number()->longLongValue(), 4);
}

/// Limits the number of descriptors that this process can open, until it is destroyed.
class FewDescriptors {
  public:
    explicit FewDescriptors(int most) {
        ::getrlimit(RLIMIT_NOFILE, &_before);
        rlimit few = _before;
        few.rlim_cur = static_cast<rlim_t>(test::openDescriptors() - 1 + most);
        ::setrlimit(RLIMIT_NOFILE, &few);
    }
    ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &_before); }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;

  private:
    rlimit _before{};
};

TEST_P(OnFileSystem, LosesNothingWhenDescriptorsRunOut) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer needs descriptors of its own";
#endif
    constexpr int kDepth = 70;  // more than a walk keeps open
    constexpr int kEnough = 200;
    constexpr const char* kChain =
        "cd mnt && mkdir fs/t && cd fs/t && n=70 && while [ $n -gt 0 ]; do : >f; mkdir d; cd d; "
        "n=$((n-1)); done";
    std::string deepest = in("t");
    for (int level = 0; level < kDepth; ++level)
        deepest += "/d";
    const auto isWhole = [this](const std::string& top) {
        return inside("test $(find " + top + " | wc -l) = " + std::to_string(2 * kDepth + 1));
    };
    const std::ptrdiff_t before = test::openDescriptors();
    for (const int most : {2, 3, 4, 5, 6, 8, 40, 68, kEnough}) {
        SCOPED_TRACE(most);
        const auto call = [&](const char* operation, const Array& arguments) {
            const FewDescriptors few(most);
            const std::string result = OnFileSystem::call(operation, arguments);
            EXPECT_TRUE(most < kEnough || result == kNone) << operation << ": " << result;
            EXPECT_TRUE(result == kNone || result.find("EMFILE") != std::string::npos)
                << operation << ": " << result;
            return result == kNone;
        };
        ASSERT_TRUE(inside(kChain));
        if (keeps("locks")) {
            const bool locked = call("ModifyProtection", {in("t"), true, true, true});
            EXPECT_TRUE(!locked || isImmutable(deepest));
            ASSERT_EQ(OnFileSystem::call("ModifyProtection", {in("t"), false, true, true}), kNone);
        }
        const bool moved = call("RenameFileobject", {in("t"), at("mnt/t")});
        EXPECT_TRUE(isWhole(moved ? "mnt/t" : "mnt/fs/t"));
        EXPECT_TRUE(inside(moved ? "test ! -e mnt/fs/t && mv mnt/t mnt/fs"
                                 : "test -z \"$(ls -A mnt | grep -e corvalen -e '^t$')\""));
        const bool deleted = call("DeleteFileobjects", {"1", "1", in("t")});
        EXPECT_TRUE(!deleted || !exists(in("t")));
        ASSERT_EQ(OnFileSystem::call("DeleteFileobjects", {"1", "1", in("t")}), kNone);
    }
    EXPECT_EQ(test::openDescriptors(), before);
}

class OnDevice : public testing::FileOperationsTest {
  protected:
    void SetUp() override {
        FileOperationsTest::SetUp();
        if (IsSkipped()) return;
        if (!mountTmpfs("size=16m") ||
            !inside("cd mnt && mkdir fs t && head -c 300000 /dev/zero >big && cp big t && "
                    "truncate -s 4M i && mkfs.ext4 -q i && mount -o loop i fs && cd fs && "
                    "printf old >hosts && mkdir -p d/e && touch d/f"))
            GTEST_SKIP() << "ext4 cannot be mounted here";
    }
    [[nodiscard]] std::string in(const std::string& name) const { return at("mnt/fs/" + name); }
    [[nodiscard]] std::string listing() const {
        EXPECT_TRUE(
            inside("(cd mnt && find fs t big ! -name fill -printf '%p %m %s %t\\n' && "
                   "cat fs/hosts) >listing"));
        return textOf(at("listing"));
    }
};

TEST_F(OnDevice, ThatIsFullNothingIsLost) {
    (void)inside("head -c 5000000 /dev/zero >mnt/fs/fill; sync -f mnt/fs");
    const std::string before = listing();
    EXPECT_EQ(call("RenameFileobject", {at("mnt/big"), in("big")}), "big: no space: ENOSPC");
    EXPECT_EQ(call("RenameFileobject", {at("mnt/t"), in("d/t")}), "t: no space: ENOSPC");
    const std::string after = listing();
    EXPECT_EQ(after.find(".corvalen"), std::string::npos);
    EXPECT_EQ(std::count(after.begin(), after.end(), '\n'),
              std::count(before.begin(), before.end(), '\n'));
    (void)call("ModifySystemfile", {in("hosts"), Data::copy(std::string(100000, 'n')), true});
    EXPECT_EQ(textOf(in("hosts.backup")), "old");
}

/// A sparse device whose own storage is full: what has no place there yet cannot be written, which
/// the file system finds out when it syncs.
TEST_F(OnDevice, ThatCannotBeWrittenNothingIsLost) {
    ASSERT_TRUE(inside("sync -f mnt/fs"));
    (void)inside("head -c 20000000 /dev/zero >mnt/fill");
    const std::string content(200000, 'n');
    EXPECT_NE(call("ModifySystemfile", {in("hosts"), Data::copy(content), true}), kNone);
    EXPECT_NE(call("RenameFileobject", {at("mnt/big"), in("big")}), kNone);
    EXPECT_EQ(statusOf(at("mnt/big")).st_size, 300000);
    // What is on the disk.
    ASSERT_TRUE(inside("rm mnt/fill && umount mnt/fs && mount -o loop mnt/i mnt/fs"));
    EXPECT_TRUE(textOf(in("hosts")) == "old" || textOf(in("hosts.backup")) == "old");
}

/// What was read before is still known; all else, and every write to the device, fails with EIO.
TEST_F(OnDevice, ThatHasGoneNothingIsLostAndNothingIsAnsweredAsDone) {
    ASSERT_TRUE(
        inside("cd mnt && rm -r big && touch kept && cd fs && cp -r ../t t && "
               "mkdir t/unread && touch t/unread/f && cd .. && rm -r t && umount fs"));
    const std::pair<const char*, Array> rows[] = {
        {"ModifySystemfile", {in("hosts"), Data::copy("new"), true}},
        {"CreateFileobject", {in("new"), "F"}},
        {"CreateFileobject", {in("new"), "D"}},
        {"CreateLink", {in("new"), "x", false}},
        {"CreateLink", {in("new"), in("hosts"), true}},
        {"RenameFileobject", {in("hosts"), in("new")}},
        {"RenameFileobject", {at("mnt/kept"), in("kept")}},
        {"RenameFileobject", {in("t"), at("mnt/t")}},
        {"DeleteFileobjects", {"1", "1", in("t")}},
        {"DeleteFoldercontents", {in("t")}},
        {"ModifyProtection", {in("t"), true, true, true}},
    };
    for (const auto& [operation, arguments] : rows) {
        ASSERT_TRUE(
            inside("cd mnt && cp --sparse=always i j && mount -o loop j fs && cat fs/hosts && "
                   "ls -lR fs/d fs/t -I unread && touch fs/x && rm fs/x && sync -f fs && "
                   "truncate -s 4k j && losetup -c $(findmnt -no SOURCE -T fs)"));
        const std::string result = call(operation, arguments);
        EXPECT_TRUE(result.find("EIO") != std::string::npos ||
                    result.find("EROFS") != std::string::npos)
            << operation << ": " << result;
        // Some kernels drop the cached contents with the device.
        EXPECT_TRUE(
            inside("cd mnt/fs && cat hosts hosts.backup new 2>../../read | grep -q old || "
                   "grep -q 'Input/output error' ../../read"))
            << operation;
        EXPECT_TRUE(inside("test \"$(echo $(ls -A mnt))\" = 'fs i j kept'")) << operation;
        ASSERT_TRUE(inside("umount mnt/fs && rm mnt/j"));
    }
}

INSTANTIATE_TEST_SUITE_P(Each, OnFileSystem,
                         ::testing::ValuesIn(testing::rowsOf("file_systems.txt")),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace corvalen
