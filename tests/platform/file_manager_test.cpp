// SPDX-License-Identifier: MIT
#include "platform/file_manager.hpp"

#include <sys/sysmacros.h>
#include <sys/xattr.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <thread>

#include "platform/file_manager_tree.hpp"
#include "platform/new_object.hpp"
#include "platform/thread_umask.hpp"
#include "support/missing_calls.hpp"
#include "support/scratch.hpp"

namespace corvalen {
namespace {

using namespace std::chrono_literals;
using testing::summary;

class FileManagerTest : public testing::Scratch {
  protected:
    std::string move(const std::string& from, const std::string& to) {
        ErrorRef error;
        Entry source;
        Entry destination;
        EXPECT_EQ(openEntryAt(AT_FDCWD, from, &source), 0);
        EXPECT_EQ(openEntryAt(AT_FDCWD, to, &destination), 0);
        const bool done = _manager->moveItem({source, from}, {destination, to}, &error);
        EXPECT_EQ(done, error == nullptr);
        return summary(error);
    }
    bool remove(const std::string& path) {
        Entry entry;
        EXPECT_EQ(openEntryAt(AT_FDCWD, path, &entry), 0);
        return _manager->removeItem(entry.address(), path);
    }
    /// A chain of folders, each with a file and an empty folder beside the next one.
    void deepFolder(const std::string& path, int levels) {
        UniqueFd at(::open(folder(path).c_str(), O_DIRECTORY | O_CLOEXEC));
        for (int level = 0; level < levels; ++level) {
            ASSERT_EQ(::mkdirat(at.get(), "next", 0755), 0);
            ASSERT_EQ(::mkdirat(at.get(), "empty", 0755), 0);
            ASSERT_EQ(::mknodat(at.get(), "file", S_IFREG | 0644, 0), 0);
            at = openFolder(at.get(), "next", false);
        }
    }

    std::unique_ptr<FileFlags> _flags = makeFileFlags();
    std::unique_ptr<FileManager> _manager = makeFileManager(*_flags);
};

/// Both threads of a shared walk call it.
struct Recorder : TreeVisitor {
    int visit(const TreeEntry& entry, bool* /*descend*/) override {
        const int count = ++visited;
        return onVisit ? onVisit(entry, count) : 0;
    }
    int leave(const TreeEntry& entry) override {
        ++left;
        return ::faccessat(entry.parent, entry.name, F_OK, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
    }
    std::function<int(const TreeEntry& entry, int count)> onVisit;
    std::atomic<int> visited{0};
    std::atomic<int> left{0};
};

TEST_F(FileManagerTest, AWalkOf5000LevelsHoldsFewDescriptors) {
    if (!mountTmpfs("size=1g")) GTEST_SKIP() << "cannot mount";
    deepFolder("mnt/deep", 5000);
    for (const std::size_t budget : {std::size_t{2}, FolderStack::kDefaultBudget}) {
        Recorder recorder;
        int highest = 0;
        recorder.onVisit = [&](const TreeEntry& entry, int) {
            highest = std::max(highest, entry.parent);
            return 0;
        };
        TreeWalk walk({.budget = budget});
        EXPECT_EQ(walk.walk(openFolder(AT_FDCWD, at("mnt/deep").c_str(), false), recorder), 0);
        EXPECT_EQ(recorder.visited, 15000);
        EXPECT_EQ(recorder.left, 10000);
        EXPECT_LT(highest, static_cast<int>(budget) + 16);
    }
    EXPECT_TRUE(remove(at("mnt/deep")));
    EXPECT_FALSE(exists(at("mnt/deep")));
}

TEST_F(FileManagerTest, AWalkFindsItsPlaceAgainInAFolderThatWasClosed) {
    if (!mountTmpfs("size=1g")) GTEST_SKIP() << "cannot mount";
    constexpr int kFolders = 10000;  // more names than one reading holds
    const std::string tail(230, 'n');
    UniqueFd top(::open(folder("mnt/wide").c_str(), O_DIRECTORY | O_CLOEXEC));
    for (int i = 0; i < kFolders; ++i) {
        const std::string name = std::to_string(i) + tail;
        ASSERT_EQ(::mkdirat(top.get(), name.c_str(), 0755), 0);
        if (i % 500 != 0) continue;
        ASSERT_EQ(::mkdirat(top.get(), (name + "/inner").c_str(), 0755), 0);
        ASSERT_EQ(::mkdirat(top.get(), (name + "/inner/most").c_str(), 0755), 0);
    }
    Recorder recorder;
    EXPECT_EQ(TreeWalk({.budget = 2}).walk(std::move(top), recorder), 0);
    EXPECT_EQ(recorder.visited, kFolders + 2 * (kFolders / 500));
    EXPECT_TRUE(remove(at("mnt/wide")));
}

TEST_F(FileManagerTest, AWalkEndsWhenItsWayBackWasMoved) {
    std::filesystem::create_directories(at("top/a/b/c/d"));
    folder("elsewhere");
    Recorder recorder;
    recorder.onVisit = [&](const TreeEntry& entry, int) {
        const bool deepest = std::string(entry.name) == "d";
        return deepest ? ::rename(at("top/a/b/c").c_str(), at("elsewhere/c").c_str()) : 0;
    };
    TreeWalk walk({.budget = 2});
    EXPECT_EQ(walk.walk(openFolder(AT_FDCWD, at("top").c_str(), false), recorder), ESTALE);
    EXPECT_EQ(walk.failedPath(), "a/b/c");
}

TEST_F(FileManagerTest, TwoThreadsVisitEveryObjectOnceAndEndTogether) {
    if (!mountTmpfs("size=64m")) GTEST_SKIP() << "cannot mount";
    for (int i = 0; i < 100; ++i)
        deepFolder("mnt/" + std::to_string(i), 20);
    for (const int failsAt : {-1, 3000}) {
        Recorder recorder;
        std::atomic<std::thread::id> failing;
        recorder.onVisit = [&](const TreeEntry&, int count) {
            EXPECT_NE(failing.load(), std::this_thread::get_id()) << "it went on";
            if (count == failsAt) failing = std::this_thread::get_id();
            // The other thread goes on until the failure has been noted; it shall not be done then.
            if (failsAt > 0 && count > failsAt) std::this_thread::sleep_for(1ms);
            return count == failsAt ? EIO : 0;
        };
        const int error = walkWithHelper(openFolder(AT_FDCWD, at("mnt").c_str(), false), recorder);
        constexpr int kObjects = 100 + 100 * 20 * 3;
        EXPECT_EQ(error, failsAt < 0 ? 0 : EIO);
        EXPECT_EQ(recorder.visited == kObjects, failsAt < 0) << recorder.visited;
    }
}

TEST_F(FileManagerTest, ANewObjectHasNothingFromTheDirectoryAbove) {
    const std::string parent = folder("parent");
    ASSERT_EQ(::chmod(parent.c_str(), 02777), 0);
    ASSERT_TRUE(inside("setfacl -d -m u:1000:rwx,g::rwx,o::rwx parent"));
    const ScopedUmask mask(077);
    const UniqueFd above(::open(parent.c_str(), O_PATH | O_CLOEXEC));
    UniqueFd file;
    UniqueFd made;
    EXPECT_EQ(makeFile({above.get(), "file"}, 0644, &file), 0);
    EXPECT_EQ(makeDirectory({above.get(), "made"}, 0755, &made), 0);
    EXPECT_EQ(modeOf(parent + "/file"), 0644U);
    EXPECT_EQ(modeOf(parent + "/made"), 0755U);
    EXPECT_TRUE(inside("test -z \"$(getfacl -s parent/file parent/made)\""));

    ASSERT_EQ(::symlink("made-by-root", (parent + "/dangling").c_str()), 0);
    EXPECT_EQ(makeFile({above.get(), "dangling"}, 0644, &file), EEXIST);
    EXPECT_FALSE(exists(parent + "/made-by-root"));
}

TEST_F(FileManagerTest, AMoveBetweenFileSystemsCarriesEverything) {
    if (!mountTmpfs("size=8m")) GTEST_SKIP() << "cannot mount";
    const std::string top = at("top");
    ASSERT_TRUE(testing::shell(
        "cd '" + _top +
        "' && mkdir -p top/sub && cd top && touch sub/inner && chmod 1777 sub && "
        "printf content > data && setfacl -m u:1234:rw data && chown 1000:1001 data && "
        "chmod 4765 data && truncate -s 1G sparse && ln -s /nowhere link && "
        "mkfifo -m 640 pipe && mknod -m 604 null c 1 3 && "
        "touch -hd @2000.123456789 data link sub ../top"));
    ASSERT_EQ(::setxattr(at("top/data").c_str(), "trusted.note", "x", 1, 0), 0);
    ASSERT_EQ(move(top, at("mnt/top")), "none");
    EXPECT_FALSE(exists(top));
    const auto moved = [this](const std::string& name) { return at("mnt/top" + name); };
    EXPECT_EQ(textOf(moved("/data")), "content");
    EXPECT_EQ(statusOf(moved("/data")).st_gid, 1001U);
    EXPECT_TRUE(testing::shell("getfacl -cn '" + moved("/data") + "' | grep -qx user:1234:rw-"));
    EXPECT_EQ(::getxattr(moved("/data").c_str(), "trusted.note", nullptr, 0), 1);
    EXPECT_EQ(statusOf(moved("/sparse")).st_size, 1 << 30);
    EXPECT_EQ(statusOf(moved("/null")).st_rdev, makedev(1, 3));
    const std::pair<const char*, unsigned> modes[] = {
        {"/data", S_IFREG | 04765U}, {"/pipe", S_IFIFO | 0640U}, {"/null", S_IFCHR | 0604U},
        {"/sub", S_IFDIR | 01777U},  {"/link", S_IFLNK | 0777U}, {"/sub/inner", S_IFREG | 0644U}};
    for (const auto& [name, mode] : modes)
        EXPECT_EQ(statusOf(moved(name)).st_mode, mode) << name;
    for (const char* name : {"/data", "/link", "/sub", ""})
        EXPECT_EQ(statusOf(moved(name)).st_mtim.tv_nsec, 123456789) << name;

    EXPECT_EQ(move(_top, at("mnt/into-itself")), "cocoa 512 <posix 16> mnt");
    EXPECT_FALSE(exists(at("mnt/into-itself")));
}

TEST_F(FileManagerTest, AMoveBetweenFileSystemsThatFailsLeavesTheOriginalAlone) {
    if (!mountTmpfs("size=64k")) GTEST_SKIP() << "cannot mount";
    file("mnt/taken", "kept");
    folder("large");
    file("large/a", std::string(100000, 'a'));
    ASSERT_TRUE(
        inside("mkdir -p deep/er shut ro bound/er/mount && touch deep/er/locked shut/x ro/x && "
               "chattr +i deep/er/locked shut && touch -d @5 locked && chattr +a locked && "
               "mount --bind ro ro && mount -o remount,bind,ro ro && "
               "mount --bind deep bound/er/mount"));
    const struct {
        const char* from;
        const char* to;
        const char* result;
    } cases[] = {
        {"large", "mnt/large", "cocoa 640 <posix 28> large"},
        {"large", "mnt/large", "cocoa 640 <posix 28> large"},  // nothing is in the way
        {"large/a", "mnt/taken", "cocoa 516 <posix 17> taken"},
        {"locked", "mnt/locked", "cocoa 513 <posix 1> locked"},
        {"deep", "mnt/deep", "cocoa 513 <posix 1> locked"},
        {"shut/x", "mnt/x", "cocoa 513 <posix 1> x"},
        {"ro/x", "mnt/x", "cocoa 642 <posix 30> x"},
        {"bound", "mnt/bound", "cocoa 512 <posix 16> mount"},
        {"missing", "mnt/x", "cocoa 4 <posix 2> missing"},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(move(at(one.from), at(one.to)), one.result) << one.from;
        EXPECT_TRUE(inside("test \"$(ls -A mnt)\" = taken")) << one.from;
    }
    EXPECT_EQ(textOf(at("mnt/taken")), "kept");
    EXPECT_EQ(statusOf(at("large/a")).st_size, 100000);
    EXPECT_TRUE(inside("umount ro bound/er/mount"));
}

TEST_F(FileManagerTest, AMoveBetweenFileSystemsIsNotWidenedByTheNewDirectory) {
    if (!mountTmpfs("size=1m")) GTEST_SKIP() << "cannot mount";
    ASSERT_TRUE(
        inside("mkdir -m 750 top && touch top/file && chmod 640 top/file && "
               "setfacl -d -m u:1234:rwx,o::rwx mnt && chmod 2777 mnt"));
    EXPECT_EQ(move(at("top"), at("mnt/top")), "none");
    EXPECT_EQ(modeOf(at("mnt/top")), 0750U);
    EXPECT_EQ(modeOf(at("mnt/top/file")), 0640U);
    EXPECT_TRUE(inside("test -z \"$(getfacl -Rs mnt/top)\""));
}

TEST_F(FileManagerTest, AMoveLeavesOutWhatTheOtherFileSystemRefuses) {
    if (!mountTmpfs("size=1m")) GTEST_SKIP() << "cannot mount";
    ASSERT_TRUE(inside("mkdir top && touch top/tool && chown 7:7 top/tool && chmod 4755 top/tool"));
    const auto refused = [this] {
        // As FAT does with owners.
        EXPECT_TRUE(test::loseCalls({SYS_fchownat}, EPERM));
        EXPECT_EQ(move(at("top"), at("mnt/top")), "none");
        ::_exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(refused(), ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(described("mnt/top/tool"), "0:0 755");
    EXPECT_FALSE(exists(at("top")));
}

}  // namespace
}  // namespace corvalen
