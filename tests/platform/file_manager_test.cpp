// SPDX-License-Identifier: MIT
#include "platform/files/file_manager.hpp"

#include <sys/mount.h>
#include <sys/syscall.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <filesystem>
#include <functional>
#include <mutex>
#include <set>
#include <thread>

#include "foundation/cancellation.hpp"
#include "platform/files/subtree_walk.hpp"
#include "support/golden.hpp"
#include "support/missing_calls.hpp"
#include "support/open_descriptors.hpp"
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

TEST_F(FileManagerTest, AWalkContinuesInADirectoryThatWasClosed) {
    if (!mountTmpfs("size=1g")) GTEST_SKIP() << "cannot mount";
    constexpr int kFolders = 30000;  // more names than one reading holds, and enough to be sorted
    const std::string tail(30, 'n');
    ASSERT_TRUE(inside("mkdir mnt/wide && cd mnt/wide && seq -f %.0f" + tail +
                       " 0 29999 | xargs mkdir && "
                       "seq -f %.0f" +
                       tail + "/inner/most 0 500 29999 | xargs mkdir -p"));
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

/// Collects names, slowly enough for a second thread to take part.
struct Naming : SubtreeVisitor {
    Result<> visit(TreeWalk& walk, bool* /*enter*/, std::uint64_t* sum) override {
        if (++*sum % 64 == 0) std::this_thread::sleep_for(1ms);
        const std::lock_guard lock(mutex);
        threads.insert(std::this_thread::get_id());
        EXPECT_TRUE(names.emplace(walk.entry().name).second) << walk.entry().name;
        return {};
    }
    std::mutex mutex;
    std::set<std::string> names;
    std::set<std::thread::id> threads;
};

TEST_F(FileManagerTest, TwoThreadsShareOneFlatFolder) {
    ASSERT_TRUE(inside("mkdir -p flat/folder/inner && cd flat && seq 4000 | xargs touch"));
    constexpr std::size_t kObjects = 4002;
    for (const auto order : {TreeWalkOptions::Order::asListed, TreeWalkOptions::Order::byInode}) {
        Naming visitor;
        const Result<std::uint64_t> sum =
            walkSubtrees(openDirectoryAt(kWorkingDirectory, at("flat").c_str()).value(), visitor,
                         {.walk = {.order = order}});
        EXPECT_EQ(sum, kObjects);
        EXPECT_EQ(visitor.names.size(), kObjects);
        EXPECT_EQ(visitor.threads.size(), 2U);
    }
}

// Two threads remove the files of a large tree. The failure is the first one in the walk's order,
// whichever they meet first.
TEST_F(FileManagerTest, ARemovalEndsAtTheFirstFailureInOrder) {
    if (!mountTmpfs("size=64m")) GTEST_SKIP() << "cannot mount";
    ASSERT_TRUE(
        inside("cd mnt && mkdir -p t/a t/b t/c && touch mounted && for f in a b c; do "
               "(cd t/$f && seq 2000 | xargs touch && mkdir d && touch d/busy$f); done"));
    std::vector<std::string> order;
    TreeWalk walk(openDirectoryAt(kWorkingDirectory, at("mnt/t").c_str()).value());
    while (walk.next() == TreeWalk::Step::object) {
        if (walk.entry().name.starts_with("busy")) order.emplace_back(walk.relativePath());
        if (walk.entry().type == EntryType::directory) (void)walk.enter();
    }
    ASSERT_EQ(order.size(), 3U);
    for (const std::string& busy : order) {
        const std::string path = at("mnt/t/" + busy);
        ASSERT_EQ(::mount(at("mnt/mounted").c_str(), path.c_str(), nullptr, MS_BIND, nullptr), 0);
    }
    for (const std::string& busy : order) {
        const std::string path = at("mnt/t/" + busy);
        EXPECT_EQ(remove(at("mnt/t")), busy.substr(4) + ": not written: EBUSY");
        ASSERT_EQ(::umount(path.c_str()), 0);
    }
    EXPECT_EQ(remove(at("mnt/t")), "none");

    ASSERT_TRUE(
        inside("cd mnt && mkdir t && cd t && mkdir a b && seq 3000 | xargs touch && "
               "(cd a && seq 3000 | xargs touch)"));
    Cancellation counting;
    const CancellationScope scope(counting);
    EXPECT_EQ(remove(at("mnt/t")), "none");
    EXPECT_EQ(counting.objectCount(), 6003U);
}

// The time that the workers of a walk appear to wait for the disk: it grows up to `lastWait`.
std::atomic<long> waitsUntilNow{0};
std::atomic<long> lastWait{0};
std::atomic<std::ptrdiff_t> mostThreads{0};

long waitsAndCountsThreads() noexcept {
    mostThreads = std::max(mostThreads.load(), test::runningThreads());
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
        const std::ptrdiff_t others = test::runningThreads() - 1;
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

TEST_F(FileManagerTest, ASearchedDirectoryIsOpenedThroughNoLink) {
    ASSERT_TRUE(inside("mkdir -p real/dir && ln -s real link && ln -s dir real/last"));
    EXPECT_TRUE(openResolvedDirectory(at("real/dir").c_str()));
    for (const char* name : {"link/dir", "link", "real/last"})
        EXPECT_FALSE(openResolvedDirectory(at(name).c_str())) << name;
}

TEST_F(FileManagerTest, AMoveBetweenFileSystemsTakesAllOrNothing) {
    if (!mountTmpfs("size=8m")) GTEST_SKIP() << "cannot mount";
    const auto path = [this](const std::string& name) { return name == "." ? _top : at(name); };
    const auto moveRow = [&](const std::string& row) {
        const std::vector<std::string> names = test::fieldsOf(row);
        return "= " + move(path(names.at(0)), path(names.at(1))) + "\n";
    };
    const auto moveWhenGone = [&](const std::string& row) {
        Cancellation cancellation;
        const CancellationScope scope(cancellation);
        cancellation.request();
        return moveRow(row);
    };
    const auto moveAtEnd = [&](const std::string& row) {
        Cancellation cancellation;
        const CancellationScope scope(cancellation);
        cancellation.requestForEnd();
        return moveRow(row);
    };
    const auto removeRow = [&](const std::string& name) { return "= " + remove(at(name)) + "\n"; };
    test::expectSteps("moves.txt", _top,
                      {{"move", moveRow},
                       {"client-gone-move", moveWhenGone},
                       {"process-ends-move", moveAtEnd},
                       {"remove", removeRow}});
}

TEST_F(FileManagerTest, AMoveSkipsWhatTheOtherFileSystemRefuses) {
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
