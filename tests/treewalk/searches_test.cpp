// SPDX-License-Identifier: MIT
// Searches, and their cancellation.
#include <atomic>
#include <chrono>
#include <mutex>
#include <new>
#include <set>
#include <thread>

#include "treewalk/fixture.hpp"
#include "treewalk/known_owners.hpp"

namespace corvalen {
namespace {

using testing::Names;
using testing::shell;
using testing::summary;

class Searches : public testing::TreeWalkTest {
  protected:
    void expectFound(const std::string& operation, const Array& arguments, const Names& expected) {
        EXPECT_EQ(call("Search" + operation, arguments), "none");
        EXPECT_EQ(feedback.found, expected) << operation;
    }
    std::uint64_t sizeBelow(const std::string& path) {
        EXPECT_EQ(call("InspectStoragesize", {path}), "answer");
        const bool told = answer && answer->userInfo() != nullptr;
        const Value* size = told ? answer->userInfo()->find("Size") : nullptr;
        return size != nullptr ? size->number()->unsignedIntegerValue() : 0;
    }
    std::uint64_t sizeOf(const std::string& name) {
        return static_cast<std::uint64_t>(statusOf(at(name)).st_size);
    }
};

TEST_F(Searches, FindOnlyMatchingObjects) {
    if (!mountTmpfs("size=1m")) GTEST_SKIP() << "cannot mount";
    expectOperations("searches.txt");
    // root is known without any account.
    users.ids.clear();
    ASSERT_TRUE(
        inside("mkdir -p known in/deep && touch known/mine in/deep/orphan && "
               "chown -R 1000 known/mine in"));
    expectFound("Fileorphans", {_top, 0}, {"known/mine", "in"});
}

TEST_F(Searches, AgeIsMeasuredInWholeDays) {
    ASSERT_TRUE(
        inside("touch today && touch -d '-48 hours 1 minute' younger && "
               "touch -d '-48 hours -1 second' older && touch -d '24 hours' tomorrow && "
               "ln -s today 'old link' && touch -hd '-72 hours' 'old link'"));
    for (const auto& [days, expected] :
         {std::pair<std::uint64_t, Names>(0, {"today", "younger", "older", "old link"}),
          {1, {"younger", "older", "old link"}},
          {2, {"older", "old link"}}})
        expectFound("Agedfiles", {_top, days, 0}, expected);
}

TEST_F(Searches, ADirectoryOfOrphansIsRecognized) {
    ASSERT_TRUE(
        inside("mkdir -p empty gone/a known mixed && touch gone/a/x known/mine mixed/mine && "
               "chown -R 3999999 * && chown 1000 known known/mine mixed/mine"));
    const UserSet known({1000});
    EXPECT_TRUE(isFolderAtPath(at("gone"), known) && isFolderAtPath(at("empty"), known));
    for (const std::string& path : {at("known"), at("mixed"), at("known/mine"), at("x"),
                                    std::string(), at("empty") + std::string("\0x", 2)})
        EXPECT_FALSE(isFolderAtPath(path, known)) << path;
    EXPECT_FALSE(isFolderAtPath(at("empty"), UserSet({})));
    const auto listed = makeUserDatabase()->listedUserIDs();
    EXPECT_TRUE(shell("test $(getent passwd | wc -l) = " + std::to_string(listed.size())));
}

TEST_F(Searches, OnlyWhatIsBelowAnOrphanedDirectoryIsLeftOut) {
    if (!mountTmpfs("size=64m")) GTEST_SKIP() << "cannot mount";
    // The walk reads ahead by whole batches, whose ends lie anywhere in the directories.
    ASSERT_TRUE(inside(
        "cd mnt && for i in $(seq 8); do mkdir $i && (cd $i && seq 1700 | xargs touch); done; "
        "chown -R 3999999 * && chown 1000 2 4 6 8"));
    Names expected{"mnt/1", "mnt/3", "mnt/5", "mnt/7"};
    for (const char* folder : {"mnt/2", "mnt/4", "mnt/6", "mnt/8"})
        for (int i = 1; i <= 1700; ++i)
            expected.insert(std::string(folder) + "/" + std::to_string(i));
    EXPECT_EQ(call("SearchFileorphans", {at("mnt"), 0}), "none");
    EXPECT_TRUE(feedback.found == expected) << feedback.found.size();
}

/// Whether the caller is slow, quick, or gives up, no thread waits for ever.
TEST_F(Searches, TwoThreadsEndHoweverTheirFindsAreTaken) {
    if (!mountTmpfs("size=64m")) GTEST_SKIP() << "cannot mount";
    ASSERT_TRUE(inside(
        "cd mnt && for i in $(seq 30); do mkdir $i && (cd $i && seq 700 | xargs touch); done"));
    constexpr std::size_t kObjects = std::size_t{30} * 701;
    std::size_t mostWalkers = 0;
    for (std::size_t round = 0; round < 30; ++round) {
        const bool takesAll = round % 3 != 0;
        const std::size_t everyWanted = round % 2 == 0 ? 1 : kObjects;
        std::mutex mutex;
        std::set<std::thread::id> walkers;
        std::size_t asked = 0;
        Cancellation client;
        const CancellationScope scope(client);
        SearchedFolder folder = openSearchedFolder(at("mnt")).value();
        SplitWalk walk(folder, false, STATX_INO, [&](std::string_view) {
            const std::lock_guard lock(mutex);
            walkers.insert(std::this_thread::get_id());
            return asked++ % everyWanted == 0;
        });
        std::size_t taken = 0;
        while ((takesAll || taken < round * 200) && walk.next() != nullptr)
            ++taken;
        if (!takesAll) {
            // The threads wait for space now; a batch has 512 finds.
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            const std::lock_guard lock(mutex);
            EXPECT_TRUE(everyWanted > 1 || asked - taken <= (SplitWalk::kMostWaiting + 5) * 512);
            continue;
        }
        EXPECT_EQ(taken, everyWanted == 1 ? kObjects : 1);
        EXPECT_EQ(client.objectCount(), kObjects);
        mostWalkers = std::max(mostWalkers, walkers.size());
    }
    EXPECT_EQ(mostWalkers, SplitWalk::kThreads);

    SearchedFolder folder = openSearchedFolder(at("mnt")).value();
    std::atomic<int> asked{0};
    SplitWalk walk(folder, false, 0, [&](std::string_view) -> bool {
        if (++asked == 9000) throw std::bad_alloc();
        return false;
    });
    EXPECT_THROW((void)walk.next(), std::bad_alloc);
}

TEST_F(Searches, TheSizeHasNoLimitOfDepthOrBreadth) {
    if (!mountTmpfs("size=64m")) GTEST_SKIP() << "cannot mount";
    // Each name of a file counts.
    ASSERT_TRUE(
        inside("cd mnt && for i in $(seq 300); do mkdir $i && printf 12 >$i/a && ln $i/a $i/b; "
               "done"));
    std::uint64_t expected = 0;
    for (int i = 1; i <= 300; ++i)
        expected += 2 + 2 + sizeOf("mnt/" + std::to_string(i));
    EXPECT_EQ(sizeBelow(at("mnt")), expected);
    folder("mnt/deep");
    const std::uint64_t leaf = sizeOf("mnt/deep");
    chain(at("mnt/deep"), 3000);
    EXPECT_EQ(sizeBelow(at("mnt")), expected + 3000 * sizeOf("mnt/deep") + leaf);
}

/// Counts the messages that were sent, and those that are kept.
struct KeepingFeedback : FeedbackConnection {
    void processPrivilegedOperationFeedback(Dictionary /*feedback*/) override {
        sent += std::exchange(kept, 0) + 1;
    }
    void processLater(Dictionary /*feedback*/) override { ++kept; }
    void flush() override {
        flushed += kept;
        sent += std::exchange(kept, 0);
    }
    int sent = 0;
    int kept = 0;
    int flushed = 0;
};

TEST(FindBatchTest, IsKeptForMillisecondsOnlyAfterAnother) {
    KeepingFeedback connection;
    FindBatch batch(&connection);
    const auto find = [&](int objects) {
        for (int i = 0; i < objects; ++i) {
            const struct statx attributes {};
            batch.add("/x", &attributes);
            batch.sendIfFull(0);
        }
    };
    find(20);
    EXPECT_EQ(std::pair(connection.sent, connection.kept), std::pair(1, 0));
    // On a busy machine a batch may come late.
    int batches = 1;
    for (; connection.kept == 0 && batches < 1000; ++batches)
        find(20);
    EXPECT_EQ(std::pair(connection.sent, connection.kept), std::pair(batches - 1, 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(6));
    // A walk that finds no more.
    for (int i = 0; i < 16; ++i)
        batch.sendIfFull(0);
    EXPECT_EQ(std::pair(connection.sent, connection.kept), std::pair(batches, 0));
    find(20);
    batch.send(1);
    EXPECT_EQ(std::pair(connection.sent, connection.kept), std::pair(batches + 2, 0));
}

/// Cancels at the message with this number, counted from 1.
class CancellingFeedback : public testing::Feedback {
  public:
    CancellingFeedback(Cancellation& cancellation, int message)
        : _cancellation(cancellation), _message(message) {}
    void processPrivilegedOperationFeedback(Dictionary feedback) override {
        Feedback::processPrivilegedOperationFeedback(std::move(feedback));
        if (--_message == 0) _cancellation.request();
    }

  private:
    Cancellation& _cancellation;
    int _message;
};

/// Cancels at the fourth probe; each probe takes so long that the next object probes again.
class FourthProbe : public Cancellation {
    bool probe() noexcept override {
        std::this_thread::sleep_for(std::chrono::nanoseconds(kProbeInterval * 3 / 2));
        return ++_probes == 4;
    }
    std::atomic<int> _probes{0};
};

class CancelledWalk : public testing::TreeWalkTest {
  protected:
    void SetUp() override {
        TreeWalkTest::SetUp();
        if (IsSkipped()) return;
        if (!mountTmpfs("size=64m")) GTEST_SKIP() << "cannot mount";
        ASSERT_TRUE(
            inside("mkdir mnt/t && cd mnt/t && seq 10000 | xargs touch && chown 3999999 *"));
    }
    /// The number of finished objects in the error, and the messages.
    std::string cancelled(const std::string& operation, const Array& arguments,
                          Cancellation& cancellation, int message = 0) {
        const CancellationScope scope(cancellation);
        CancellingFeedback connection(cancellation, message);
        answer = test::perform(table, operation, arguments, &connection);
        EXPECT_EQ(summary(answer), summary(makePosixError(ECANCELED))) << operation;
        const bool hasInfo = answer && answer->userInfo() != nullptr;
        const Value* count = hasInfo ? answer->userInfo()->find(kKeyObjectCount) : nullptr;
        return (count != nullptr ? std::to_string(count->number()->unsignedIntegerValue()) : "-") +
               " done: " + connection.sent;
    }
};

TEST_F(CancelledWalk, EndsBeforeTheNextObject) {
    const std::string top = at("mnt/t");
    const auto order = QRLDirectoryEnumerator::enumeratorAtPath(top)->allObjects();
    const Array pattern{top, "0", "1", "9"};
    std::size_t fortieth = 0;
    for (std::size_t found = 0; found < 40; ++fortieth)
        found += order[fortieth].starts_with("9") ? 1 : 0;
    ASSERT_TRUE(inside("chmod 777 mnt/t"));
    for (const auto& [operation, arguments, message, expected] :
         {std::tuple<std::string, Array, int, const char*>("SearchAgedfiles", {top, 0, 0}, 2,
                                                           "40 done: 0:20 0:20"),
          {"SearchFilenames", {top, "", "", 0}, 1, "20 done: 0:20"},
          {"SearchPatterns", pattern, 1, "0 done: 0.01"},
          {"SearchFileorphans", {top, 0}, 1, "20 done: 0:20"},
          {"PropPermissions", {top, 0, 0, 0x02}, 2, "200 done: 100 200 1"}}) {
        Cancellation cancellation;
        EXPECT_EQ(cancelled(operation, arguments, cancellation, message), expected) << operation;
    }
    for (std::size_t i = 0; i < order.size(); ++i)
        ASSERT_EQ(modeOf(at("mnt/t/" + order[i])), i < 200 ? 0646U : 0644U) << i;
    Cancellation inMatching;
    EXPECT_TRUE(cancelled("SearchPatterns", pattern, inMatching, 3)
                    .starts_with(std::to_string(fortieth) + " done: 0.01 "));
}

TEST_F(CancelledWalk, FindsAreSentBeforeItWaits) {
    // A tmpfs lists the newest first: the second batch has nothing behind it but other names.
    ASSERT_TRUE(inside("cd mnt/t && seq -f z%.0f 40 | xargs touch"));
    KeepingFeedback connection;
    // On a busy machine the batches may come too far apart to be kept.
    for (int tries = 0; connection.flushed == 0 && tries < 100; ++tries)
        (void)test::perform(table, "SearchPatterns", {at("mnt/t"), "0", "1", "z"}, &connection);
    EXPECT_GT(connection.flushed, 0);
}

TEST_F(CancelledWalk, EndsInEveryThread) {
    FourthProbe cancellation;
    const std::string size = cancelled("InspectStoragesize", {at("mnt/t")}, cancellation);
    EXPECT_GE(size, "1 done: ");
    EXPECT_LE(size, "3 done: ");

    FourthProbe inTheCount;
    EXPECT_LT(cancelled("SearchPatterns", {at("mnt/t"), "0", "0", "x"}, inTheCount).size(), 14U);

    // The thread that reads ahead sees the cancellation; the calling thread waits for it.
    Cancellation ahead;
    const CancellationScope scope(ahead);
    std::atomic<int> seen{0};
    std::thread::id reader;
    WalkAhead walk(openSearchedFolder(at("mnt/t")).value(), false, 0, [&](std::string_view) {
        if (++seen == 9000) ahead.request();
        reader = std::this_thread::get_id();
        return false;
    });
    EXPECT_EQ(walk.next(), nullptr);
    EXPECT_TRUE(walk.wasCancelled());
    EXPECT_NE(reader, std::this_thread::get_id());
    EXPECT_LT(seen, 9000 + 16);
    EXPECT_EQ(ahead.objectCount(), static_cast<unsigned>(seen));
}

}  // namespace
}  // namespace corvalen
