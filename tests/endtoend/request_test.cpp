// SPDX-License-Identifier: MIT
// Requests over the socket: rejections, feedback, hostile and dying clients, other users.
#include <fstream>

#include "daemon_fixture.hpp"
#include "operations/feedback.hpp"
#include "support/child.hpp"
#include "xpc/connection.hpp"
#include "xpc/listener.hpp"

namespace corvalen::test {
namespace {

using ::testing::HasSubstr;

TEST_F(DaemonTest, OtherUsersAreAdmittedOnlyWhereAnybodyIs) {
    Child nobody(65534, [] {
        const auto client = Client::connect();
        const auto denied = client->perform("delete-files", {"/run/does-not-exist"});
        return client->version() == "1.4" && client->perform("nop", {}).succeeded() &&
               client->perform("discard-auth", {}).succeeded() && denied.error &&
               *denied.error == *makePosixError(EPERM);
    });
    EXPECT_EQ(nobody.wait(), 0);
    EXPECT_EQ(hostErrno(Client::connect()->perform("delete-files", {"/run/no"}).error), ENOENT);
    EXPECT_THAT(logText(),
                HasSubstr("Operation could not be authorized, rejected with error code 1."));
}

TEST_F(DaemonTest, EveryStepOfTheRejectionsReachesTheClient) {
    const auto connection = Connection::connectionToServiceAtPath(kServiceSocketPath);
    ASSERT_NE(connection, nullptr);
    const auto proxy = connection->remoteObjectProxy();
    const auto good = Value(makeAuthorizationData());
    const auto closed = Listener::anonymousListener()->endpoint();
    const struct {
        Array params;
        std::int64_t code;
        std::string line;
    } cases[] = {
        {{77, good, Value(), Array{}}, 22, "Received invalid operation with code 77 "},
        {{9998, Data::copy(std::string(32, 'x')), Value(), Array{}}, -60002, "code -60002."},
        {{9996, good, Value(), Array{"/run/no", 3}}, 22, "has class NSNumber (string expected)."},
        {{12, good, closed, Array{}}, 4099, "no return connection could be opened"},
        {{9998, good, closed, Array{}}, 0, "nop was completed with"},
    };
    for (const auto& item : cases) {
        const Value reply = proxy.call(selector::kPerformPrivilegedOperation, item.params);
        ASSERT_NE(reply.error(), nullptr) << item.line;
        EXPECT_EQ(reply.error()->code(), item.code) << item.line;
        EXPECT_THAT(logText(), HasSubstr(item.line));
    }
    ErrorRef failure;
    EXPECT_TRUE(proxy.call(selector::kPerformPrivilegedOperation, {1}, &failure).isNil());
    EXPECT_NE(failure, nullptr);
    EXPECT_EQ(proxy.call(selector::kGetVersionString, {}), Value("1.4"));
}

TEST_F(DaemonTest, FindsComeBeforeTheReply) {
    std::filesystem::create_directories(scratch.path("tree/below"));
    for (int i = 0; i < 45; ++i)
        std::ofstream(scratch.path("tree/below/" + std::to_string(i) + ".log"));
    std::size_t found = 0;
    bool final = false;
    const auto result = Client::connect()->perform(
        "search-patterns", {scratch.path("tree"), "0", "2", "log"}, [&](const Dictionary& message) {
            EXPECT_FALSE(final);
            final = message.find(kQRLPORK_FinalFeedbackMessage) != nullptr;
            const Value* batch = message.find(kQRLPORK_FileObjectInfo);
            if (batch != nullptr) found += batch->array()->size();
        });
    EXPECT_TRUE(result.succeeded()) << describeFailure(result.error);
    EXPECT_TRUE(final && result.feedbackComplete);
    EXPECT_EQ(found, 45U);
}

TEST_F(DaemonTest, AClientThatDiesInTheMiddleLeavesNothing) {
    for (int i = 0; i < 200; ++i)
        std::ofstream(scratch.path(std::to_string(i) + ".log"));
    const auto keeper = Client::connect();
    ASSERT_EQ(keeper->version(), "1.4");
    const auto threads = countOf("task"), descriptors = countOf("fd");
    for (int i = 0; i < 20; ++i) {
        Child dying(0, [&] {
            Client::connect()->perform("search-patterns", {scratch.path(), "0", "2", "log"},
                                       [i](const Dictionary& message) {
                                           if (i % 2 == 0 || message.size() == 2) ::_exit(0);
                                       });
            return false;
        });
        EXPECT_EQ(dying.wait(), 0);
    }
    EXPECT_TRUE(keeper->perform("nop", {}).succeeded());
    EXPECT_TRUE(
        eventually([&] { return countOf("task") == threads && countOf("fd") == descriptors; }));
    EXPECT_EQ(activator->starts(), 1);
}

}  // namespace
}  // namespace corvalen::test
