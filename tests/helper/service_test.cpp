// SPDX-License-Identifier: MIT
// The registrations of clients, and what the program does for each command line.
#include <array>
#include <cstdlib>
#include <iomanip>
#include <vector>

#include "foundation/cancellation.hpp"
#include "helper/activity.hpp"
#include "helper/feedback_channel.hpp"
#include "helper/start_up.hpp"
#include "helper_fixture.hpp"
#include "operations/errors.hpp"
#include "support/golden.hpp"
#include "support/scratch_folder.hpp"
#include "xpc/limits.hpp"
#include "xpc/socket_io.hpp"

namespace corvalen::test {
namespace {

using namespace ::testing;
using namespace ::testing::internal;

class ServiceTest : public HelperTest {
  protected:
    ServiceTest() { makeHelper(catalogue); }

    QRLPrivilegedOperationSetKVX catalogue;
    UserQuotaTable quotas;
    std::shared_ptr<UserQuotas> account = quotas.quotasForUser(1000);
};

TEST_F(ServiceTest, ClientsAreASetWithAQuotaPerUser) {
    for (int pid = 100; pid < 1124; ++pid)
        ASSERT_TRUE(helper->registerClientWithPID(pid, account));
    events.take();
    EXPECT_TRUE(helper->registerClientWithPID(100, account));  // again
    EXPECT_THAT(helper->clientSet(), SizeIs(1024));
    events.take();
    EXPECT_FALSE(helper->registerClientWithPID(-1, account));
    EXPECT_THAT(events.take(), ElementsAre("3 Client -1 was not registered because user 1000 has "
                                           "1024 clients."));
    EXPECT_TRUE(helper->registerClientWithPID(2000, quotas.quotasForUser(1001)));
    // An unregistration by any client frees the place.
    helper->unregisterClientWithPID(117);
    EXPECT_TRUE(helper->registerClientWithPID(-1, account));
}

TEST(RunningRequestsTest, CancelWhatRunsAndWhatWouldBegin) {
    RunningRequests all;
    EXPECT_FALSE(all.isPerforming());
    {
        RunningRequest running(all, {}, 1000);
        RunningRequest later(all, {}, 1000);
        const RunningRequest::Performing performing(running);
        EXPECT_TRUE(performing && all.isPerforming() && !running.requested());
        all.cancelAll();
        EXPECT_TRUE(running.requested());
        EXPECT_FALSE(RunningRequest::Performing(later));
        EXPECT_FALSE(all.closeIfNone());
    }
    EXPECT_FALSE(all.isPerforming());
    EXPECT_TRUE(all.closeIfNone());
}

TEST_F(ServiceTest, EachFileThatIsDeletedCounts) {
    const ScratchFolder folder;
    Cancellation client;
    const CancellationScope scope(client);
    const Array paths{putFile(folder.path("a"), ""), folder.path("none"),
                      putFile(folder.path("b"), "")};
    EXPECT_EQ(*helper->deleteFileSystemObjectsWithPaths(paths), *makePosixError(ENOENT));
    EXPECT_EQ(client.objectCount(), 2U);
}

TEST_F(ServiceTest, UnreadFeedbackCountsUntilItIsReadOrClosed) {
    SocketPair packets = makeSocketPair(SOCK_SEQPACKET);
    const EndpointRef endpoint{std::make_shared<const UniqueFd>(std::move(packets.first))};
    const auto sends = [&] {
        const auto channel = FeedbackChannel::open(endpoint, {}, account);
        EXPECT_TRUE(channel || *channel.error() == *makePosixError(ENOBUFS));
        return channel.has_value();
    };
    for (int i = 0; i < 128; ++i)
        ASSERT_TRUE(sends()) << i;
    EXPECT_FALSE(sends());
    std::vector<UniqueFd> halves;
    std::array<char, 4096> bytes{};
    ASSERT_TRUE(receive(packets.second, bytes, halves));
    ASSERT_TRUE(receive(packets.second, bytes, halves));
    ASSERT_EQ(halves.size(), 2U);
    EXPECT_TRUE(receive(halves[0], bytes, halves));
    halves[1].reset();
    EXPECT_TRUE(sends());
    EXPECT_TRUE(sends());
    EXPECT_FALSE(sends());
}

TEST_F(ServiceTest, LogLinesOfAUserAreLimited) {
    const LogQuotaScope limited(account.get());
    constexpr std::size_t kLimit = wire::kMaximumLogLinesPerUserAndSecond;
    int wakes = 0;
    helper->log().setLeftOutHandler([&wakes] { ++wakes; });
    for (std::size_t i = 0; i < 10 * kLimit; ++i)
        helper->registerClientWithPID(17);
    // A second may have begun.
    EXPECT_THAT(events.take(), SizeIs(AllOf(Ge(kLimit), Le(2 * kLimit))));
    EXPECT_EQ(wakes, 1) << "for the first line that was left out";
    EXPECT_TRUE(helper->log().reportLeftOutLines({account}, quotaSecond() + 1));
    EXPECT_THAT(events.take(), ElementsAre(HasSubstr(" log lines of user 1000 were left out.")));
    EXPECT_TRUE(helper->log().reportLeftOutLines({account}, quotaSecond() + 1));
}

TEST_F(ServiceTest, OnlyConnectionsOfItsOwnListenerAreAccepted) {
    const auto other = Listener::anonymousListener();
    const auto connection = Connection::connectionToEndpoint(other->endpoint());
    CaptureStderr();
    EXPECT_FALSE(helper->listenerShouldAcceptNewConnection(*other, connection));
    EXPECT_FALSE(helper->listenerShouldAcceptNewConnection(*helper->listener(), nullptr));
    const std::string line =
        "test_helper: QRLPrivilegedHelper: received bad XPC connection request. Ignoring ...\n";
    EXPECT_EQ(GetCapturedStderr(), line + line);
}

TEST(StartUp, EveryCommandLineAndSurrounding) {
    // Words of the surroundings, "--", and the command line.
    expectTranscript("start_up.txt", [](const std::string& line) {
        std::istringstream text(line);
        std::map<std::string, std::string> given{
            {"user", "0"}, {"class", "QRLPrivilegedOperationSetKVX"}, {"version", "1.4"}};
        std::string word;
        while (text >> word && word != "--") {
            const std::size_t equals = word.find('=');
            given[word.substr(0, equals)] = word.substr(equals + 1);
        }
        std::vector<std::string> words;
        while (text >> std::quoted(word, '\''))
            words.push_back(word);
        Events events;
        StartUpDependencies dependencies{
            static_cast<uid_t>(std::stoul(given["user"])), stdout, stderr, {}, {}};
        dependencies.openLog = [&](auto ident, auto facility, auto sender) {
            events.add(std::string(ident).append(" ").append(facility).append(" ").append(sender));
            return std::make_unique<RecordingLog>(events);
        };
        dependencies.serve = [&](const QRLPrivilegedOperationSet& set, auto&&) {
            events.add("serves " + std::to_string(set.implementedOperations().size()));
            return 7;
        };
        CaptureStdout();
        CaptureStderr();
        const int status =
            runProgram({words.begin(), words.end()},
                       {given["class"], "the.bundle", given["version"], "141112"}, dependencies);
        std::string result = GetCapturedStdout();
        if (const std::string errors = GetCapturedStderr(); !errors.empty())
            result += "! " + errors;
        for (const std::string& event : events.take())
            result += event + "\n";
        return result + "= " + std::to_string(status) + "\n";
    });
}

TEST(StartUp, AbortsWithoutALogOrAMessageTemplate) {
    using OpenLog = decltype(StartUpDependencies::openLog);
    Events events;
    const std::tuple<const char*, std::string, OpenLog> cases[] = {
        {"aslHandle != NULL", "the.bundle", [](auto...) { return nullptr; }},
        {"aslMessage != NULL", "", [&](auto...) { return std::make_unique<RecordingLog>(events); }},
        {"aslMessage != NULL", "the.bundle",
         [](auto...) -> std::unique_ptr<SystemLog> { throw std::bad_alloc(); }},
    };
    for (const auto& [condition, identifier, openLog] : cases)
        EXPECT_EXIT((void)runProgram({}, {"QRLPrivilegedOperationSetKVX", identifier, "1.4", "1"},
                                     {0, stdout, stderr, openLog, {}}),
                    KilledBySignal(SIGABRT),
                    std::string("^main: assertion failed: ") + condition + "\n$");
}

}  // namespace
}  // namespace corvalen::test

// The daemon ends with _exit(0), which must not pass for the success of a test.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" [[noreturn]] void __real__exit(int status);
extern "C" [[noreturn]] void __wrap__exit(int status) {
    if (status == 0) std::abort();
    __real__exit(status);
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)
