// SPDX-License-Identifier: MIT
#include <chrono>
#include <thread>

#include "operations/errors.hpp"
#include "treewalk/fixture.hpp"

namespace corvalen {
namespace {

using testing::summary;

/// Requests the cancellation with the given message, the first being 1.
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

/// Requests itself at the fourth probe; each takes so long that the next object is probed again.
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
        answer = test::perform(operations, operation, arguments, &connection);
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

TEST_F(CancelledWalk, EndsInEveryThread) {
    FourthProbe cancellation;
    const std::string size = cancelled("InspectStoragesize", {at("mnt/t")}, cancellation);
    EXPECT_GE(size, "1 done: ");
    EXPECT_LE(size, "3 done: ");

    FourthProbe inTheCount;
    EXPECT_LT(cancelled("SearchPatterns", {at("mnt/t"), "0", "0", "x"}, inTheCount).size(), 14U);

    // The thread that reads ahead is the one that finds out, and the one that calls waits for it.
    Cancellation ahead;
    const CancellationScope scope(ahead);
    SearchedFolder folder;
    ASSERT_FALSE(openSearchedFolder(at("mnt/t"), &folder));
    std::atomic<int> seen{0};
    std::thread::id reader;
    WalkAhead walk(std::move(folder), false, 0, [&](std::string_view) {
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
