// SPDX-License-Identifier: MIT
// The operations on objects and trees: what each answers and changes, and what fails on the way.
#include <sys/syscall.h>

#include <filesystem>
#include <thread>

#include "fileops/file_object_info.hpp"
#include "fileops/operations_fixture.hpp"
#include "foundation/cancellation.hpp"
#include "support/missing_calls.hpp"

namespace corvalen {
namespace {

class Operations : public testing::FileOperationsTest {
  protected:
    std::string remove(const char* recursive, const std::string& name) {
        return call("DeleteFileobjects", {recursive, "1", at(name)});
    }
    std::string rewrite(const std::string& path) {
        return call("ModifySystemfile", {path, Data::copy("new"), false});
    }
};

TEST_F(Operations, FollowLinksOnTheWayAndAtTheEndAsTheTableSays) {
    expectOperations("links.txt");
}

TEST_F(Operations, ChangeOnlyTheirObjects) {
    if (!mountTmpfs("size=1m")) GTEST_SKIP() << "cannot mount";
    const mode_t mask = ::umask(077);
    test::withAndWithout(test::kNewCalls, [this] { expectOperations("objects.txt"); });
    EXPECT_EQ(::umask(mask), 077U);
}

TEST_F(Operations, LinksOfProcAreFollowedByTheKernelOnly) {
    ASSERT_TRUE(inside("mkdir dir && touch dir/file"));
    const UniqueFd directory(::open(at("dir").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::string magic = "/proc/self/fd/" + std::to_string(directory.get());
    ASSERT_TRUE(inside("mv dir moved && mkdir dir && touch dir/file"));
    EXPECT_EQ(rewrite(magic + "/file"), "none");
    EXPECT_EQ(textOf(at("moved/file")), "new");
    EXPECT_EQ(call("TouchFileobject", {magic}), "none");
    EXPECT_EQ(call("CreateFileobject", {magic + "/made", "D"}), "none");
    EXPECT_TRUE(exists(at("moved/made")));
    EXPECT_EQ(call("DeleteFoldercontents", {magic}), "none");
    EXPECT_TRUE(exists(at("dir/file")));
    EXPECT_EQ(call("DeleteFileobjects", {"1", "1", magic}),
              magic.substr(14) + ": no permission: EPERM");

    const std::string decoy = file("decoy (deleted)", "kept");
    const UniqueFd open(::open(file("decoy").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::unlink(at("decoy").c_str()), 0);
    EXPECT_EQ(rewrite("/proc/self/fd/" + std::to_string(open.get())), "ELOOP");
    EXPECT_EQ(textOf(decoy), "kept");
}

TEST_F(Operations, ASystemFileIsFoundByALongPath) {
    // The path is longer than the kernel takes in one piece.
    const std::string name(200, 'd');
    std::string half = name;
    for (int i = 0; i < 11; ++i)
        half += "/" + name;
    ASSERT_TRUE(inside("mkdir -p " + half + " && ln -s " + half +
                       " half && cd -P half && mkdir -p " + half + " && cd -P " + half +
                       " && printf old >hosts"));
    const std::string far = link("far", "half/" + half + "/hosts");
    EXPECT_EQ(rewrite(far), "none");
    EXPECT_TRUE(S_ISLNK(statusOf(far).st_mode));
    EXPECT_EQ(textOf(far), "new");
    EXPECT_TRUE(inside("cd -P half && cd -P " + half + " && test \"$(cat hosts.backup)\" = old"));
}

/// openat2(2) came with Linux 5.6.
TEST_F(Operations, StayOnTheirMountOnOlderKernelsToo) {
    if (!mountTmpfs("size=1m")) GTEST_SKIP() << "cannot mount";
    ASSERT_TRUE(
        inside("mkdir -p mnt/top/bound mnt/kept && touch mnt/kept/file && "
               "mount --bind mnt/kept mnt/top/bound"));
    test::withAndWithout({SYS_openat2}, [this] {
        for (const char* name : {"mnt", "mnt/top", "mnt/top/bound"})
            EXPECT_EQ(remove("1", name), "EBUSY") << name;
        EXPECT_EQ(call("DeleteFoldercontents", {at("mnt/top")}), "EBUSY");
        EXPECT_EQ(call("ModifyProtection", {at("mnt/top"), true, true, true}), "none");
        EXPECT_TRUE(isImmutable(at("mnt/top")));
        EXPECT_FALSE(isImmutable(at("mnt/kept/file")));
        EXPECT_EQ(call("ModifyProtection", {at("mnt/top"), false, true, true}), "none");
    });
    EXPECT_TRUE(exists(at("mnt/kept/file")));
}

TEST_F(Operations, PassOverAFileSystemThatDeniesRoot) {
    if (!mountTmpfs("size=1m")) GTEST_SKIP() << "cannot mount";
    ASSERT_TRUE(inside("mkdir -p mnt/top/denied && touch mnt/top/file"));
    // Nobody but its user may enter it.
    const UniqueFd fuse(::open("/dev/fuse", O_RDWR | O_CLOEXEC));
    const std::string options =
        "fd=" + std::to_string(fuse.get()) + ",rootmode=40000,user_id=1234,group_id=1234";
    if (::mount("none", at("mnt/top/denied").c_str(), "fuse", 0, options.c_str()) != 0)
        GTEST_SKIP() << "no FUSE here";
    EXPECT_EQ(call("ModifyProtection", {at("mnt/top"), true, true, true}), "none");
    EXPECT_TRUE(isImmutable(at("mnt/top/file")));
    EXPECT_EQ(call("ModifyProtection", {at("mnt/top"), false, true, true}), "none");
    EXPECT_EQ(call("ModifyProtection", {at("mnt/top"), true, true, false}), "EACCES");
}

TEST_F(Operations, ReturnTheErrorOfTheFlags) {
    ASSERT_TRUE(inside(
        "mkdir top locked shut && touch target both top/free top/locked locked/a locked/b && "
        "chattr +i both top/locked locked/a locked/b shut"));
    flags.systemLocked = {statusOf(at("both")).st_ino};
    EXPECT_EQ(remove("0", "both"), "both: single user mode");
    EXPECT_EQ(flags.changes, 0);
    EXPECT_TRUE(isImmutable(at("both")));
    flags.systemLocked = {};
    flags.failure = EROFS;
    EXPECT_EQ(remove("0", "both"), "both: flags unchanged");
    EXPECT_EQ(remove("0", "target"), "none");  // no flag, no change
    flags.changes = 0;
    EXPECT_EQ(call("DeleteFoldercontents", {at("locked")}), "EROFS");
    EXPECT_EQ(flags.changes, 1) << "the first failure ends it";
    EXPECT_EQ(call("ModifyProtection", {at("shut"), false, true, false}), "EROFS");
    EXPECT_EQ(remove("1", "shut"), "EROFS");
    flags.failure = EPERM;
    EXPECT_EQ(call("ModifyProtection", {_top, true, true, false}), "EPERM");
    EXPECT_EQ(remove("1", "top"), "EPERM");
    EXPECT_TRUE(exists(at("top/free"))) << "nothing is removed";
}

TEST_F(Operations, LockTheTargetOfALinkByPath) {
    const std::string target = file("target");
    link("link", target);
    link("dangling", at("gone"));
    const auto lock = [this](const std::string& path, bool checksTarget) {
        ErrorRef error;
        const bool locked = operations.setImmutableFlag(true, path, checksTarget, &error);
        EXPECT_EQ(locked, error == nullptr);
        return testing::summary(error);
    };
    EXPECT_EQ(lock(at("link"), true), "none");
    EXPECT_TRUE(isImmutable(target));
    EXPECT_EQ(lock(at("dangling"), true), "ENOENT");
    EXPECT_EQ(lock(at("dangling"), false), "none");
    EXPECT_EQ(lock(at("gone"), false), "ENOENT");
    EXPECT_EQ(lock("", false), "EINVAL");
    flags.failure = EPERM;
    EXPECT_EQ(lock(file("other"), true), "EPERM");
}

TEST_F(Operations, ASystemFileThatIsReplacedMeanwhileKeepsItsName) {
    const std::string hosts = file("hosts", "examined");
    const std::string other = file("other", "another");
    flags.onNextRead = [&] {
        EXPECT_EQ(::renameat2(AT_FDCWD, hosts.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE),
                  0);
    };
    EXPECT_EQ(rewrite(hosts), "hosts: protected: not written: ESTALE");
    EXPECT_EQ(textOf(hosts) + " " + textOf(other), "another examined");
    EXPECT_FALSE(exists(hosts + ".backup"));
}

TEST_F(Operations, ASystemFileIsPrivateUntilItHasTheAttributesOfTheOldOne) {
    ASSERT_TRUE(inside("printf old >hosts && chown 12:13 hosts"));
    const auto fail = [this] {
        EXPECT_TRUE(test::loseCalls({SYS_fchmod, SYS_fchown, SYS_fchownat}, EPERM));
        EXPECT_EQ(rewrite(at("hosts")), "hosts: no permission: EPERM");
        ::_exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(fail(), ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(described("hosts"), "0:0 600");
    EXPECT_EQ(textOf(at("hosts.backup")), "old");
}

TEST_F(Operations, StopBeforeTheNextObjectWhenCancelled) {
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
    EXPECT_EQ(remove("1", "mnt/top"), "ECANCELED");
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

TEST_F(Operations, CountEachObjectThatIsRemovedAlone) {
    Cancellation client;
    const CancellationScope scope(client);
    EXPECT_EQ(call("DeleteFileobjects", {"0", "1", file("a"), file("b")}), "none");
    EXPECT_EQ(client.objectCount(), 2U);
}

TEST_F(Operations, ARecordDescribesTheObjectItself) {
    Array records;
    link("link", "12345");
    const std::string path = file("file", "1234");
    ASSERT_TRUE(inside("chmod 4711 file && touch -d @77.123456789 file"));
    for (const std::string& one :
         {at("link"), path, at("gone"), std::string(), path + std::string("\0x", 2)})
        addFileSystemObjectInfoDictionaryToArray(&records, one);
    addFileSystemObjectInfoDictionaryToArray(nullptr, path);
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(*records[0].dictionary()->find("Type"), Value("NSFileTypeSymbolicLink"));
    EXPECT_EQ(records[1], Value(Dictionary{{"Path", path},
                                           {"Type", "NSFileTypeRegular"},
                                           {"Size", 4},
                                           {"ModificationDate", Date{77, 123456789}},
                                           {"Mode", 04711}}));
    const std::pair<unsigned, std::string_view> types[] = {
        {S_IFDIR, "NSFileTypeDirectory"},        {S_IFSOCK, "NSFileTypeSocket"},
        {S_IFCHR, "NSFileTypeCharacterSpecial"}, {S_IFBLK, "NSFileTypeBlockSpecial"},
        {S_IFIFO, "NSFileTypeUnknown"},
    };
    for (const auto& [mode, name] : types)
        EXPECT_EQ(fileTypeName(mode | 0644), name);
    EXPECT_EQ(FileOperations::fileSystemIDForPath(path),
              static_cast<std::uint32_t>(statusOf(path).st_dev));
    EXPECT_EQ(FileOperations::fileSystemIDForPath(at("gone")), 0xFFFFFFFFU);
}

}  // namespace
}  // namespace corvalen
