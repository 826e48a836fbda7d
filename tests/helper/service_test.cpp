// SPDX-License-Identifier: MIT
// The service: what its messages must look like, its clients, debug mode, its end.
#include <algorithm>
#include <limits>

#include "helper_fixture.hpp"
#include "operations/names.hpp"
#include "xpc/wire_limits.hpp"

namespace corvalen::test {
namespace {

using ::testing::ElementsAre;

class ServiceTest : public HelperTest {
  protected:
    ServiceTest() {
        makeHelper(catalogue);
        connection = Connection::connectionToEndpoint(helper->listener()->endpoint());
    }
    CallResult send(std::string_view selector, Array params) {
        return helper->handleMessage(*connection, selector, std::move(params));
    }

    std::shared_ptr<Connection> connection;
};

TEST_F(ServiceTest, ForeignParametersAreCheckedAndNothingIsDoneWithWrongOnes) {
    constexpr auto perform = selector::kPerformPrivilegedOperation;
    constexpr std::int64_t tooLow = std::numeric_limits<std::int32_t>::min() - std::int64_t{1};
    const Data data = Data::copy(std::string(32, 'x'));
    const std::vector<std::pair<std::string_view, Array>> wrong = {
        {perform, {9998, data, Value()}},
        {perform, {9998, data, Value(), Array{}, 1}},
        {perform, {-1, data, Value(), Array{}}},
        {perform, {9998.0, data, Value(), Array{}}},
        {perform, {"9998", data, Value(), Array{}}},
        {perform, {9998, "text", Value(), Array{}}},
        {perform, {9998, data, 3, Array{}}},
        {perform, {9998, data, Value(), Dictionary{}}},
        {selector::kEnableDebugMode, {1}},
        {selector::kRegisterClient, {std::uint64_t{0x80000000}}},
        {selector::kRegisterClient, {std::numeric_limits<std::uint64_t>::max()}},
        {selector::kUnregisterClient, {tooLow}},
        {selector::kRegisterClient, {true}},
        {selector::kGetVersionString, {1}},
        {selector::kConnectWithEndpoint, {Value()}},
    };
    for (const auto& [selector, params] : wrong) {
        const CallResult result = send(selector, params);
        EXPECT_FALSE(result.callError.empty()) << selector << params.size();
        EXPECT_TRUE(result.result.isNil());
    }
    EXPECT_THAT(events.take(), ElementsAre());
    // Nil is no wrong form: it stands for empty data and for an absent list.
    const Value refused = makePosixError(EINVAL);
    EXPECT_EQ(send(perform, {9998, Value(), Value(), Array{}}).result, refused);
    EXPECT_EQ(send(perform, {9998, data, Value(), Value()}).result, refused);
    EXPECT_EQ(send(perform, {std::uint64_t{9998}, data, Value(), Array{}}).result.error()->code(),
              0);
}

TEST_F(ServiceTest, ClientsAreASet) {
    for (const int pid : {17, 18, 17, -1, std::numeric_limits<std::int32_t>::min()})
        send(selector::kRegisterClient, {pid});
    EXPECT_EQ(helper->clientSet().size(), 4U);
    for (const int pid : {-1, std::numeric_limits<std::int32_t>::min(), 99, 17})
        send(selector::kUnregisterClient, {pid});
    EXPECT_EQ(events.take().back(), "7 1 clients remaining.");
}

TEST_F(ServiceTest, AUserRegistersNoMoreThan1024Clients) {
    UserQuotaTable table;
    const auto account = table.quotasForUser(1000);
    for (int pid = 0; pid < 1024; ++pid)
        ASSERT_TRUE(helper->registerClientWithPID(pid, account));
    events.take();
    // The one too many is not logged as begun; others have accounts of their own.
    EXPECT_FALSE(helper->registerClientWithPID(-1, account));
    EXPECT_THAT(events.take(), ElementsAre("3 Client -1 was not registered because user 1000 has "
                                           "1024 clients."));
    EXPECT_TRUE(helper->registerClientWithPID(5, account)) << "it is there already";
    EXPECT_TRUE(helper->registerClientWithPID(2000, table.quotasForUser(1001)));
    EXPECT_TRUE(helper->registerClientWithPID(2001));
    // Anybody's unregistration gives it back.
    helper->unregisterClientWithPID(17);
    EXPECT_TRUE(helper->registerClientWithPID(-1, account));
    EXPECT_EQ(helper->clientSet().size(), 1026U);
}

TEST_F(ServiceTest, LogLinesOfAUserAreLimitedButNotThoseOfWhatWasGranted) {
    UserQuotaTable table;
    const auto account = table.quotasForUser(1000);
    const LogQuotaScope limited(account.get());
    constexpr std::size_t kLimit = wire::kMaximumLogLinesPerUserAndSecond;
    int told = 0;
    helper->log().setLeftOutHandler([&told] { ++told; });
    for (std::size_t i = 0; i < 10 * kLimit; ++i)
        helper->registerClientWithPID(17);
    const std::size_t written = events.take().size();
    EXPECT_GE(written, kLimit);
    EXPECT_LE(written, 2 * kLimit) << "a second may have begun";
    EXPECT_EQ(told, 1) << "with the first line that was left out, and not with each";
    // Granted by the authority, and here without an implementation.
    send(selector::kPerformPrivilegedOperation,
         {3, Data::copy(std::string(32, 'x')), Value(), Array{}});
    const auto lines = events.take();
    const auto has = [&lines](std::string_view part) {
        return std::any_of(lines.begin(), lines.end(), [part](const std::string& line) {
            return line.find(part) != std::string::npos;
        });
    };
    EXPECT_TRUE(has("About to perform") && has("no implementation") && has("was completed"));
    EXPECT_TRUE(helper->log().reportLeftOutLines({account}, quotaSecond() + 1));
    ASSERT_EQ(events.list.size(), 1U);
    EXPECT_THAT(events.list[0], ::testing::HasSubstr(" log lines of user 1000 were left out."));
}

TEST_F(ServiceTest, OnlyConnectionsOfItsOwnListenerAreAccepted) {
    const auto other = Listener::anonymousListener();
    ::testing::internal::CaptureStderr();  // it tells the console
    EXPECT_FALSE(helper->listenerShouldAcceptNewConnection(*other, connection));
    EXPECT_FALSE(helper->listenerShouldAcceptNewConnection(*helper->listener(), nullptr));
    const std::string line =
        "test_helper: QRLPrivilegedHelper: received bad XPC connection request. Ignoring ...\n";
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), line + line);
    EXPECT_TRUE(helper->listenerShouldAcceptNewConnection(*helper->listener(), connection));
    connection->invalidate();
}

}  // namespace
}  // namespace corvalen::test
