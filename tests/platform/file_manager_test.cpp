// SPDX-License-Identifier: MIT
#include "platform/files/file_manager.hpp"

#include <sys/sysmacros.h>
#include <sys/xattr.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <filesystem>
#include <functional>
#include <set>
#include <thread>

#include "platform/files/extra_workers.hpp"
#include "platform/files/new_object.hpp"
#include "platform/files/subtree_walk.hpp"
#include "platform/processes/thread_umask.hpp"
#include "support/missing_calls.hpp"
#include "support/results.hpp"
#include "support/scratch.hpp"

namespace corvalen {
namespace {

using namespace std::chrono_literals;
using testing::summary;

class FileManagerTest : public testing::Scratch {
  protected:
    std::string move(const std::string& from, const std::string& to) {
        ErrorRef error;
        const Result<Entry> source = openEntryAt(kWorkingDirectory, from);
        const Result<Entry> destination = openEntryAt(kWorkingDirectory, to);
        const bool done =
            _manager->moveItem({source.value(), from}, {destination.value(), to}, &error);
        EXPECT_EQ(done, error == nullptr);
        return summary(error);
    }
    std::string remove(const std::string& path) {
        ErrorRef error;
        const Result<Entry> entry = openEntryAt(kWorkingDirectory, path);
        const bool done = _manager->removeItem(entry.value().address(), path, &error);
        EXPECT_EQ(done, error == nullptr);
        return summary(error);
    }
    /// A chain of folders, each with a file and an empty folder beside the next one.
    void deepFolder(const std::string& path, int levels) {
        UniqueFd at(::open(folder(path).c_str(), O_DIRECTORY | O_CLOEXEC));
        for (int level = 0; level < levels; ++level) {
            ASSERT_EQ(::mkdirat(at.get(), "next", 0755), 0);
            ASSERT_EQ(::mkdirat(at.get(), "empty", 0755), 0);
            ASSERT_EQ(::mknodat(at.get(), "file", S_IFREG | 0644, 0), 0);
            at = openDirectoryAt(at, "next").value();
        }
    }

    std::unique_ptr<FileFlags> _flags = makeFileFlags();
    std::unique_ptr<FileManager> _manager = makeFileManager(*_flags);
};

/// Enters every directory, and checks that each one it leaves still has its name.
struct Walked {
    int visited = 0;
    int left = 0;
    int highest = 0;  // descriptor
    std::string last;

    int walk(TreeWalk& walk, const std::function<void(const std::string&)>& onVisit = {}) {
        for (auto step = walk.next(); step != TreeWalk::Step::end; step = walk.next()) {
            const ObjectAddress at = walk.address();
            const bool isLeft = step == TreeWalk::Step::left;
            ++(isLeft ? left : visited);
            highest = std::max(highest, at.parent.get());
            EXPECT_EQ(::faccessat(at.parent.get(), at.name, F_OK, AT_SYMLINK_NOFOLLOW), 0)
                << at.name;
            if (isLeft) continue;
            if (onVisit) onVisit(at.name);
            if (walk.entry().type != EntryType::directory) continue;
            EXPECT_TRUE(walk.enter());
        }
        last = walk.relativePath();
        return test::errnoOf(walk.result());
    }
};

TEST_F(FileManagerTest, AWalkOf5000LevelsHoldsFewDescriptors) {
    if (!mountTmpfs("size=1g")) GTEST_SKIP() << "cannot mount";
    deepFolder("mnt/deep", 5000);
    for (const std::size_t budget : {std::size_t{2}, DirectoryStack::kDefaultBudget}) {
        Walked walked;
        TreeWalk walk(openDirectoryAt(kWorkingDirectory, at("mnt/deep").c_str()).value(),
                      {.givesLeft = true, .budget = budget});
        EXPECT_EQ(walked.walk(walk), 0);
        EXPECT_EQ(walked.visited, 15000);
        EXPECT_EQ(walked.left, 10000);
        EXPECT_LT(walked.highest, static_cast<int>(budget) + 16);
    }
    EXPECT_EQ(remove(at("mnt/deep")), "none");
    EXPECT_FALSE(exists(at("mnt/deep")));
}

TEST_F(FileManagerTest, AWalkFindsItsPlaceAgainInAFolderThatWasClosed) {
    if (!mountTmpfs("size=1g")) GTEST_SKIP() << "cannot mount";
    constexpr int kFolders = 30000;  // more names than one reading holds, and enough to be sorted
    const std::string tail(30, 'n');
    UniqueFd top(::open(folder("mnt/wide").c_str(), O_DIRECTORY | O_CLOEXEC));
    for (int i = 0; i < kFolders; ++i) {
        const std::string name = std::to_string(i) + tail;
        ASSERT_EQ(::mkdirat(top.get(), name.c_str(), 0755), 0);
        if (i % 500 != 0) continue;
        ASSERT_EQ(::mkdirat(top.get(), (name + "/inner").c_str(), 0755), 0);
        ASSERT_EQ(::mkdirat(top.get(), (name + "/inner/most").c_str(), 0755), 0);
    }
    for (const auto order : {TreeWalkOptions::Order::asListed, TreeWalkOptions::Order::byInode}) {
        Walked walked;
        std::set<std::string> names;
        // The top itself stays open.
        TreeWalk walk(openDirectoryAt(kWorkingDirectory, at("mnt").c_str()).value(),
                      {.order = order, .budget = 2});
        EXPECT_EQ(walked.walk(walk, [&](const std::string& name) { names.insert(name); }), 0);
        EXPECT_EQ(walked.visited, 1 + kFolders + 2 * (kFolders / 500));
        EXPECT_EQ(names.size(), 1 + kFolders + 2U);
    }
    EXPECT_EQ(remove(at("mnt/wide")), "none");
}

TEST_F(FileManagerTest, AWalkEndsWhenItsWayBackWasMoved) {
    std::filesystem::create_directories(at("top/a/b/c/d"));
    folder("elsewhere");
    Walked walked;
    TreeWalk walk(openDirectoryAt(kWorkingDirectory, at("top").c_str()).value(), {.budget = 2});
    const auto moveAway = [this](const std::string& name) {
        if (name == "d") std::filesystem::rename(at("top/a/b/c"), at("elsewhere/c"));
    };
    EXPECT_EQ(walked.walk(walk, moveAway), ESTALE);
    EXPECT_EQ(walked.last, "a/b/c");
}

/// Adds one for each object.
struct Counting : SubtreeVisitor {
    Result<> visit(TreeWalk& /*walk*/, bool* /*enter*/, std::uint64_t* sum) override {
        ++*sum;
        if (const int error = onVisit(++visited)) return failure(error);
        return {};
    }
    std::function<int(int count)> onVisit;
    std::atomic<int> visited{0};
};

TEST_F(FileManagerTest, TwoThreadsVisitEveryObjectOnceAndEndTogether) {
    if (!mountTmpfs("size=64m")) GTEST_SKIP() << "cannot mount";
    for (int i = 0; i < 100; ++i)
        deepFolder("mnt/" + std::to_string(i), 20);
    constexpr int kObjects = 100 + 100 * 20 * 3;
    for (const int failsAt : {-1, 3000}) {
        Counting visitor;
        std::atomic<std::thread::id> failing;
        visitor.onVisit = [&](int count) {
            EXPECT_NE(failing.load(), std::this_thread::get_id()) << "it went on";
            if (count == failsAt) failing = std::this_thread::get_id();
            // Slows the other thread down, so that it has not finished when it sees the failure.
            if (failsAt > 0 && count > failsAt) std::this_thread::sleep_for(1ms);
            return count == failsAt ? EIO : 0;
        };
        const Result<std::uint64_t> sum =
            walkSubtrees(openDirectoryAt(kWorkingDirectory, at("mnt").c_str()).value(), visitor);
        EXPECT_EQ(test::errnoOf(sum), failsAt < 0 ? 0 : EIO);
        EXPECT_EQ(visitor.visited == kObjects, failsAt < 0) << visitor.visited;
        if (sum) {
            EXPECT_EQ(*sum, static_cast<unsigned>(visitor.visited));
        }
    }
}

// The time that the workers of a walk appear to wait for the disk: it grows up to `lastWait`.
std::atomic<long> waitsUntilNow{0};
std::atomic<long> lastWait{0};
std::atomic<std::ptrdiff_t> mostThreads{0};

std::ptrdiff_t threadsNow() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                         std::filesystem::directory_iterator());
}

long waitsAndCountsThreads() noexcept {
    mostThreads = std::max(mostThreads.load(), threadsNow());
    return std::min(waitsUntilNow += 100, lastWait.load());
}

TEST_F(FileManagerTest, AWalkOfSubtreesTakesMoreWorkersWhileTheyWait) {
    if (!mountTmpfs("size=64m")) GTEST_SKIP() << "cannot mount";
    ASSERT_TRUE(
        inside("cd mnt && for i in $(seq 40); do mkdir -p $i/a/b && cd $i/a/b && "
               "seq 200 | xargs touch && cd ../../..; done"));
    // A sanitizer starts its own thread together with the first one.
    std::thread([] {}).join();
    // A walk begins with two workers and adds none while they do not wait.
    for (const auto& [last, least, most] : {std::tuple(0L, 1, 2),
                                            {LONG_MAX, 8, SubtreeOptions::kMostWorkers},
                                            {30000L, 3, SubtreeOptions::kMostWorkers}}) {
        waitsUntilNow = mostThreads = 0;
        const std::ptrdiff_t others = threadsNow() - 1;
        lastWait = last;
        Cancellation never;
        Counting visitor;
        visitor.onVisit = [](int) { return 0; };
        EXPECT_EQ(
            walkSubtrees(openDirectoryAt(kWorkingDirectory, at("mnt").c_str()).value(), visitor,
                         {.walk = {.cancellation = &never},
                          .mostWorkers = SubtreeOptions::kMostWorkers,
                          .waits = waitsAndCountsThreads}),
            40U * 203);
        EXPECT_GE(mostThreads - others, least) << last;
        EXPECT_LE(mostThreads - others, most) << last;
        EXPECT_EQ(never.objectCount(), 40U * 203);
    }
}

TEST_F(FileManagerTest, ADirectoryIsListedThroughNoLinkAndNoMount) {
    if (!mountTmpfs("size=1m")) GTEST_SKIP() << "cannot mount";
    ASSERT_TRUE(inside("mkdir -p real/dir && ln -s real link && ln -s dir real/last"));
    const UniqueFd above(::open(_top.c_str(), O_PATH | O_CLOEXEC));
    EXPECT_TRUE(openResolvedDirectory(at("real/dir").c_str()));
    EXPECT_TRUE(openOnSameMount(above, "real"));
    for (const char* name : {"link/dir", "link", "real/last"}) {
        EXPECT_FALSE(openResolvedDirectory(at(name).c_str())) << name;
        EXPECT_FALSE(openOnSameMount(above, name)) << name;
    }
    EXPECT_FALSE(openOnSameMount(above, "mnt"));
}

TEST_F(FileManagerTest, ANewObjectHasNothingFromTheDirectoryAbove) {
    const std::string parent = folder("parent");
    ASSERT_EQ(::chmod(parent.c_str(), 02777), 0);
    ASSERT_TRUE(inside("setfacl -d -m u:1000:rwx,g::rwx,o::rwx parent"));
    const ScopedUmask mask(077);
    const UniqueFd above(::open(parent.c_str(), O_PATH | O_CLOEXEC));
    EXPECT_TRUE(makeFile({above, "file"}, 0644));
    EXPECT_TRUE(makeDirectory({above, "made"}, 0755));
    EXPECT_EQ(modeOf(parent + "/file"), 0644U);
    EXPECT_EQ(modeOf(parent + "/made"), 0755U);
    EXPECT_TRUE(inside("test -z \"$(getfacl -s parent/file parent/made)\""));

    ASSERT_EQ(::symlink("made-by-root", (parent + "/dangling").c_str()), 0);
    EXPECT_TRUE(failedWith(makeFile({above, "dangling"}, 0644), EEXIST));
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

    EXPECT_EQ(move(_top, at("mnt/into-itself")), "mnt: not written: EBUSY");
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
        {"large", "mnt/large", "large: no space: ENOSPC"},
        {"large", "mnt/large", "large: no space: ENOSPC"},  // nothing is in the way
        {"large/a", "mnt/taken", "taken: exists: EEXIST"},
        {"locked", "mnt/locked", "locked: no permission: EPERM"},
        {"deep", "mnt/deep", "locked: no permission: EPERM"},
        {"shut/x", "mnt/x", "x: no permission: EPERM"},
        {"ro/x", "mnt/x", "x: read-only: EROFS"},
        {"bound", "mnt/bound", "mount: not written: EBUSY"},
        {"missing", "mnt/x", "missing: no such file: ENOENT"},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(move(at(one.from), at(one.to)), one.result) << one.from;
        EXPECT_TRUE(inside("test \"$(ls -A mnt)\" = taken")) << one.from;
    }
    EXPECT_EQ(textOf(at("mnt/taken")), "kept");
    EXPECT_EQ(statusOf(at("large/a")).st_size, 100000);
    EXPECT_EQ(remove(at("bound")), "mount: not written: EBUSY");
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

TEST(ExtraWorkers, AUserGetsHalfOfWhatOthersLeave) {
    ExtraWorkers workers;
    const auto takeAll = [&workers](std::uint32_t user) {
        int taken = 0;
        while (workers.take(user))
            ++taken;
        return taken;
    };
    EXPECT_EQ(takeAll(1000), 30);
    EXPECT_EQ(takeAll(1001), 15);
    EXPECT_EQ(takeAll(1000), 0);
    EXPECT_EQ(takeAll(0), 7);
    for (int i = 0; i < 30; ++i)
        workers.giveBack(1000);
    EXPECT_EQ(takeAll(0), 15);
}

}  // namespace
}  // namespace corvalen
