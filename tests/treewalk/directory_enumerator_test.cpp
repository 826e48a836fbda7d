// SPDX-License-Identifier: MIT
#include <fcntl.h>

#include <atomic>
#include <chrono>
#include <iterator>
#include <list>
#include <mutex>
#include <set>
#include <thread>

#include "support/open_descriptors.hpp"
#include "treewalk/fixture.hpp"

namespace corvalen {
namespace {

using testing::Names;

const std::string kClass = "test_treewalk: QRLDirectoryEnumerator: ";
const std::string kNested = kClass + "maximum number of nested directories reached. Skipping...\n";

class DirectoryEnumerator : public testing::TreeWalkTest {};

TEST_F(DirectoryEnumerator, ReturnsDirectoriesBeforeTheirContentsAndFollowsNoLink) {
    ASSERT_TRUE(
        inside("mkdir -p a/b empty && ln -s .. a/up && ln -s nowhere dangling && mkfifo pipe"));
    file("a/b/\xff\x01 odd");
    const Names expected{"a", "a/b", "a/b/\xff\x01 odd", "a/up", "dangling", "empty", "pipe"};
    EXPECT_EQ(walked(_top), expected);
    EXPECT_EQ(walked(_top + "/"), expected);
    EXPECT_EQ(walked(at("empty")), Names{});
    std::set<std::string> seen;
    for (const auto& object : QRLDirectoryEnumerator::enumeratorAtPath(_top)->allObjects()) {
        seen.insert(object);
        const std::size_t slash = object.rfind('/');
        EXPECT_TRUE(slash == std::string::npos || seen.contains(object.substr(0, slash)));
    }
    for (const std::string& path : {file("file"), at("missing"), std::string()}) {
        EXPECT_EQ(walked(path), Names{});
        const std::string refusal = "attempt to initialize with invalid path '" + path + "'\n";
        EXPECT_EQ(messages, path.empty() ? "" : kClass + refusal);
    }
    ::chmod(_top.c_str(), 0755);
    ASSERT_EQ(::chmod(at("a").c_str(), 0700), 0);
    ASSERT_EQ(::seteuid(65534), 0);
    const Names readable = walked(_top);
    const Names below = walked(at("a"));
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_EQ(readable, (Names{"a", "dangling", "empty", "file", "pipe"}));
    EXPECT_EQ(below, Names{});
}

TEST_F(DirectoryEnumerator, OpensFiveHundredLevelsWithFewDescriptors) {
    chain(folder("deep"), 600);
    const Names names = walked(at("deep"));
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), 1000U);
    for (const std::string& name : names)
        EXPECT_LE(name.size(), 499U * 2 + 1);
    EXPECT_EQ(messages, kNested);
    chain(folder("shorter"), 505);  // the deepest path is not too long
    EXPECT_EQ(walked(at("shorter")).size(), 1000U);
    const std::ptrdiff_t before = test::openDescriptors();
    std::ptrdiff_t most = 0;
    for (auto walk = QRLDirectoryEnumerator::enumeratorAtPath(at("deep")); walk->nextObject();)
        most = std::max(most, test::openDescriptors());
    EXPECT_GT(most, before + 60);
    EXPECT_LE(most, before + 68);
    for (WalkAhead ahead(openSearchedFolder(at("deep")).value(), false, 0);
         ahead.next() != nullptr;)
        most = std::max(most, test::openDescriptors());
    EXPECT_LE(most, before + 68 + 2 * static_cast<std::ptrdiff_t>(WalkAhead::kBatchFolders));
    EXPECT_EQ(test::openDescriptors(), before);
}

TEST_F(DirectoryEnumerator, EntersRelativePathsOf1024BytesAndNoLonger) {
    std::string base = std::string(255, 'a');
    for (const char letter : {'b', 'c', 'd'})
        base.append("/").append(254, letter);
    for (const char* end : {"/abc/x", "/abcd/y"})
        ASSERT_TRUE(std::filesystem::create_directories(at(base + end)));
    const Names names = walked(_top);
    EXPECT_EQ(names.size(), 7U);
    EXPECT_EQ(names.count(base + "/abc/x"), 1U);
    EXPECT_EQ(names.count(base + "/abcd"), 1U);
    // "x" also makes a path that is too long, but a walk logs the message once.
    EXPECT_EQ(messages, kClass + "maximum path length reached. Skipping...\n");
}

TEST_F(DirectoryEnumerator, ANameOf256BytesWithItsSeparatorReadsItsParentAgainOnce) {
    const std::string wide(254, 'w');
    ASSERT_TRUE(
        inside("mkdir -p a/" + wide + "1 a/s/" + wide + "2 && touch a/f a/" + wide + "1/never"));
    EXPECT_EQ(walked(_top),
              (Names{"a", "a/" + wide + "1", "a/" + wide + "1", "a/f", "a/f", "a/s", "a/s",
                     "a/s/" + wide + "2", "a/s/" + wide + "2", "a/s/" + wide + "2"}));
    EXPECT_EQ(messages, kNested);
    // A name in the base has no separator, so 255 bytes fit.
    EXPECT_EQ(walked(at("a")).count(wide + "1/never"), 1U);

    // Deep enough that the repeated directory has to be opened again.
    chain(folder("deep"), 80);
    std::string level = at("deep");
    for (int depth = 0; depth < 40; ++depth)
        level.append("/d");
    for (const char* end : {"1", "2", "3"})
        ASSERT_EQ(::mkdir(std::string(level).append("/").append(wide).append(end).c_str(), 0755),
                  0);
    EXPECT_EQ(walked(at("deep")).size(), 80U + 4 * (80 + 3));

    // Each of three names repeats the directory; five hundred do not make 250,000 objects.
    for (const auto& [names, least, most] : {std::tuple(3U, 13U, 13U), {500U, 1002U, 2502U}}) {
        ASSERT_TRUE(inside("rm -rf a deep && mkdir a && cd a && seq -f %0255.f " +
                           std::to_string(names) + " | xargs mkdir"));
        const std::size_t objects = walked(_top).size();
        EXPECT_GE(objects, least);
        EXPECT_LE(objects, most);
        EXPECT_EQ(messages, kNested);
    }
}

TEST_F(DirectoryEnumerator, KeepsItsOrderHoweverItIsSplit) {
    // The levels have more entries together than the buffer of a walk.
    ASSERT_TRUE(
        inside("for level in $(seq 12); do seq -f %0200.f 150 | xargs touch && mkdir d$level e && "
               "seq -f 1%0200.f 150 | xargs touch && cd d$level; done"));
    const auto all = QRLDirectoryEnumerator::enumeratorAtPath(_top)->allObjects();
    ASSERT_EQ(all.size(), 12U * 302);
    UniqueFd base(::open(_top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const DescentRules rules(base, _top, true);
    for (const std::size_t distance : {1U, 7U, 50U, 400U, 1500U}) {
        std::list<WalkRest> segments(1);
        segments.front().directory = std::make_shared<UniqueFd>(*openForListing(base));
        segments.front().path = _top;
        std::vector<std::string> objects;
        for (; !segments.empty(); segments.pop_front()) {
            QRLDirectoryEnumerator walk(segments.front(), rules, currentCancellation(), nullptr);
            while (walk.next() != nullptr) {
                objects.emplace_back(
                    walk.currentAbsolutePathForDirectoryEntry().substr(_top.size() + 1));
                if (objects.size() % distance != 0) continue;
                if (auto rest = walk.giveRest())
                    segments.insert(std::next(segments.begin()), *std::move(rest));
            }
        }
        EXPECT_TRUE(objects == all) << distance;
    }
    ASSERT_TRUE(
        inside("rm -rf * && seq 2500 | sed 's:.:/&:g; s:^/::' | xargs mkdir -p && "
               "touch $(find . -type d -name '[1-4]' -printf '%p/1 %p/6 %p/8 %p/9 ')"));
    for (int round = 0; round < 3; ++round)
        (void)walked(_top);
}

TEST_F(DirectoryEnumerator, NeverEntersTheVolumeTreeUnlessItStays) {
    ASSERT_TRUE(inside("mkdir -p .volumes/inside"));
    for (const auto& [path, stay, count] :
         {std::tuple("/", false, 1U), {"/.vol/1", false, 1U}, {"/", true, 2U}, {"/x", false, 2U}}) {
        UniqueFd base(::open(_top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        QRLDirectoryEnumerator walk(std::move(base), path, stay);
        EXPECT_EQ(walk.allObjects().size(), count) << path << stay;
        SearchedFolder folder{path, UniqueFd(::open(_top.c_str(), O_RDONLY | O_DIRECTORY))};
        const auto all = [](std::string_view) { return true; };
        const std::optional<ObjectCount> counted = countObjects(folder, stay, 0, all);
        EXPECT_TRUE(counted->arePlain);
        EXPECT_EQ(counted->objects, count) << path << stay;
    }
}

TEST_F(DirectoryEnumerator, StaysOnItsMountAndNotOnlyOnItsDevice) {
    if (!mountTmpfs("size=1m")) GTEST_SKIP() << "cannot mount";
    ASSERT_TRUE(
        inside("mkdir -p mnt/t/a/in mnt/t/b && mount --bind mnt/t/a mnt/t/b && "
               "mkdir mnt/bound && mount --bind mnt/t mnt/bound"));
    EXPECT_EQ(walked(at("mnt/t"), true), (Names{"a", "a/in", "b"}));
    EXPECT_EQ(walked(at("mnt/t"), false), (Names{"a", "a/in", "b", "b/in"}));
    EXPECT_EQ(walked(at("mnt/bound"), true), (Names{"a", "a/in", "b"}));
    // The device of a link to the base is that of the link.
    const std::string way = link("way", at("mnt/t"));
    const auto fromElsewhere = QRLDirectoryEnumerator::enumeratorAtPath(way, true);
    EXPECT_EQ(fromElsewhere->allObjects().size(), 2U);
    EXPECT_EQ(QRLDirectoryEnumerator::enumeratorAtPath(way + std::string("\0x", 2)), nullptr);
    // Files of an overlay over two devices have another device than its directories.
    if (!inside("mkdir -p low/both mnt/up/both mnt/work mnt/over && "
                "touch low/both/f mnt/up/both/g && mount -t overlay -o "
                "lowerdir=low,upperdir=mnt/up,workdir=mnt/work,xino=off none mnt/over"))
        GTEST_SKIP() << "no overlays here";
    EXPECT_EQ(walked(at("mnt/over"), true), (Names{"both", "both/f", "both/g"}));
}

TEST_F(DirectoryEnumerator, ReadsAgainWhatItsBufferCouldNotHold) {
    // Twelve levels with more unread names each than the buffer holds in all.
    ASSERT_TRUE(
        inside("for level in $(seq 12); do mkdir s && cd s && "
               "seq -f " +
               std::string(180, 'n') + "%g 400 | xargs touch; done"));
    const Names names = walked(at("s"));
    EXPECT_EQ(names.size(), 12U * 400 + 11);
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), names.size());
}

TEST_F(DirectoryEnumerator, AMovedDirectoryIsNotFollowed) {
    chain(folder("deep"), 120);
    folder("decoy");
    const auto walk = QRLDirectoryEnumerator::enumeratorAtPath(at("deep"));
    Names names;
    while (const auto object = walk->nextObject()) {
        names.insert(*object);
        EXPECT_FALSE(object->ends_with("stolen"));
        if (object->size() != 2 * 119 + 1 || !object->ends_with("d")) continue;
        ASSERT_TRUE(inside("mv deep/$(printf 'd/%.0s' $(seq 50)) decoy/d && touch decoy/stolen"));
    }
    // The walk still returns everything from the open directories above the moved one.
    EXPECT_EQ(std::count_if(names.begin(), names.end(),
                            [](const std::string& name) { return name.size() < 64; }),
              64);
}

std::atomic<long> waitsOfEverybody{0};
std::atomic<long> waitsAtEachLook{0};

std::mutex walkersMutex;
std::set<std::thread::id> walkers;

/// Every thread of a walk calls it when it starts.
long fakeWaits() noexcept {
    const std::lock_guard lock(walkersMutex);
    walkers.insert(std::this_thread::get_id());
    return waitsOfEverybody += waitsAtEachLook;
}

// Threads run ahead of a walk as long as it waits, change nothing of what it gives, and end with
// it.
TEST_F(DirectoryEnumerator, WarmsTheCacheOnlyWhileItWaits) {
    ASSERT_TRUE(
        inside("mkdir t && cd t && for i in $(seq 60); do mkdir -p $i/a/b && "
               "(cd $i/a/b && seq 100 | xargs touch); done"));
    const auto order = QRLDirectoryEnumerator::enumeratorAtPath(at("t"))->allObjects();
    std::thread([] {}).join();
    const std::ptrdiff_t threads = test::runningThreads();
    const std::ptrdiff_t descriptors = test::openDescriptors();
    for (const long waits : {0L, 100L}) {
        waitsAtEachLook = waits;
        walkers.clear();
        std::vector<std::string> given;
        WalkAhead walk(openSearchedFolder(at("t")).value(), false, STATX_SIZE, {}, fakeWaits);
        while (const WalkAhead::Object* object = walk.next()) {
            given.emplace_back(object->path().substr(at("t").size() + 1));
            EXPECT_NE(walk.attributes(), nullptr);
            if (given.size() == 2000) std::this_thread::sleep_for(std::chrono::milliseconds(20));
            if (given.size() % 100 != 0) continue;
            EXPECT_LE(test::openDescriptors(), descriptors + 1000);
        }
        EXPECT_EQ(given, order);
        // Without waits, two threads walk: the caller and the one that reads ahead.
        EXPECT_EQ(walkers.size() > 2, waits > 0) << walkers.size();
        EXPECT_LE(test::runningThreads(), threads + 1);
    }
    waitsAtEachLook = 0;
}

}  // namespace
}  // namespace corvalen
