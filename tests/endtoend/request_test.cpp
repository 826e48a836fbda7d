// SPDX-License-Identifier: MIT
// Requests over the socket: rejections, feedback, hostile and dying clients, other users.
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include "daemon_fixture.hpp"
#include "operations/feedback.hpp"
#include "xpc/connection.hpp"
#include "xpc/listener.hpp"

namespace corvalen::test {
namespace {

using ::testing::HasSubstr;

constexpr uid_t kNobody = 65534;

/// Runs `body` as another user in a process of its own; true when it gives true there.
bool asUser(uid_t user, const std::function<bool()>& body) {
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(::setresgid(user, user, user) == 0 && ::setresuid(user, user, user) == 0 && body()
                    ? 0
                    : 1);
    int status = -1;
    ::waitpid(child, &status, 0);
    return status == 0;
}

UniqueFd rawConnection() {
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    kServiceSocketPath.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return fd;
}

TEST_F(DaemonTest, OtherUsersAreAdmittedOnlyWhereAnybodyIs) {
    EXPECT_TRUE(asUser(kNobody, [] {
        const auto client = Client::connect();
        const auto denied = client->perform("delete-files", {"/run/does-not-exist"});
        return client->version() == "1.4" && client->perform("nop", {}).succeeded() &&
               client->perform("discard-auth", {}).succeeded() && denied.error &&
               *denied.error == *makePosixError(EPERM);
    }));
    EXPECT_EQ(hostErrno(Client::connect()->perform("delete-files", {"/run/no"}).error), ENOENT);
    EXPECT_THAT(logText(),
                HasSubstr("Operation could not be authorized, rejected with error code 1."));
}

TEST_F(DaemonTest, EveryRejectionReachesTheClient) {
    const auto connection = Connection::connectionToServiceAtPath(kServiceSocketPath);
    ASSERT_NE(connection, nullptr);
    const auto proxy = connection->remoteObjectProxy();
    const auto good = Value(makeAuthorizationData());
    const auto closed = Listener::anonymousListener()->endpoint();
    const struct {
        Array params;
        std::string_view domain;
        std::int64_t code;
        std::string line;
    } cases[] = {
        {{77, good, Value(), Array{}}, kPosixErrorDomain, 22, "invalid operation with code 77"},
        {{9998, good, Value(), Value()}, kPosixErrorDomain, 22, "code 9998 argument list 0x0."},
        {{9998, Data::copy(std::string(31, 'x')), Value(), Array{}},
         kPosixErrorDomain,
         22,
         "rejected with error code 22."},
        {{9998, Data::copy(std::string(32, 'x')), Value(), Array{}},
         kOSStatusErrorDomain,
         -60002,
         "rejected with error code -60002."},
        {{9998, good, Value(), Array{1}},
         kPosixErrorDomain,
         22,
         "nop was rejected because an invalid number of arguments was specified (0 expected, 1 "
         "sent)."},
        {{9996, good, Value(), Array{"/run/no", 3}},
         kPosixErrorDomain,
         22,
         "delete-files was rejected because at least one argument has class NSNumber (string "
         "expected)."},
        {{5, good, Value(), Array{true}},
         kPosixErrorDomain,
         22,
         "inspect-fileobject was rejected because argument 0 has class NSNumber (expected type "
         "'S')."},
        {{12, good, closed, Array{}},
         kCocoaErrorDomain,
         4099,
         "no return connection could be opened"},
        {{9998, good, closed, Array{}}, kPosixErrorDomain, 0, "nop was completed with"},
    };
    for (const auto& item : cases) {
        ErrorRef failure;
        const ErrorRef reply =
            proxy.call(selector::kPerformPrivilegedOperation, item.params, &failure).error();
        ASSERT_NE(reply, nullptr) << item.line;
        EXPECT_EQ(reply->domain(), item.domain) << item.line;
        EXPECT_EQ(reply->code(), item.code) << item.line;
        EXPECT_THAT(logText(), HasSubstr(item.line));
    }
    for (const auto selector :
         {selector::kPerformPrivilegedOperation, selector::kProcessFeedback}) {
        ErrorRef failure;
        EXPECT_TRUE(proxy.call(selector, {1}, &failure).isNil());
        EXPECT_NE(failure, nullptr);
    }
    EXPECT_EQ(proxy.call(selector::kGetVersionString, {}), Value("1.4"));
}

TEST_F(DaemonTest, FindsComeInBatchesBeforeTheReply) {
    std::filesystem::create_directories(scratch.path("tree/below"));
    for (int i = 0; i < 45; ++i)
        std::ofstream(scratch.path("tree/below/\xff\xfe" + std::to_string(i) + ".log"));
    std::vector<std::size_t> batches;
    std::vector<double> fractions;
    std::vector<std::string> paths;
    bool final = false;
    const auto result = Client::connect()->perform(
        "search-patterns", {scratch.path("tree"), "0", "2", "log"}, [&](const Dictionary& message) {
            EXPECT_FALSE(final);
            final = message.find(kQRLPORK_FinalFeedbackMessage) != nullptr;
            if (const Value* fraction = message.find(kQRLPORK_ProgressFraction))
                fractions.push_back(fraction->number()->doubleValue());
            const Value* found = message.find(kQRLPORK_FileObjectInfo);
            if (found == nullptr) return;
            batches.push_back(found->array()->size());
            for (const Value& record : *found->array())
                paths.push_back(*record.dictionary()->find(kKeyObjectPath)->string());
        });
    EXPECT_TRUE(result.succeeded()) << describeFailure(result.error);
    EXPECT_TRUE(final && result.feedbackComplete);
    EXPECT_THAT(batches, ::testing::ElementsAre(20U, 20U, 5U));
    ASSERT_EQ(fractions.size(), 5U);
    EXPECT_EQ(fractions[0], 0.0);
    EXPECT_EQ(fractions[1], 0.01);
    EXPECT_EQ(fractions[4], 1.0);
    EXPECT_THAT(paths, ::testing::Contains(scratch.path("tree/below/\xff\xfe"
                                                        "44.log")));
}

TEST_F(DaemonTest, GarbageEndsOnlyTheConnectionItCameOver) {
    const auto bystander = Client::connect();
    ASSERT_EQ(bystander->version(), "1.4");
    const std::vector<std::string> garbage = {
        std::string("\xc1", 1),                  // begins no value
        std::string("\x05", 1),                  // no message
        std::string("GET / HTTP/1.1\r\n\r\n"),   // another protocol
        std::string("\xdd\xff\xff\xff\xff", 5),  // an array of 2^32 elements
        std::string("\xc6\xff\xff\xff\xff", 5),  // 4 GiB of data
        std::string("\x94\x00\x01\xc0\x90", 5),  // a method that is no string
        std::string(200, '\x91'),                // too deep
    };
    for (const std::string& bytes : garbage) {
        const UniqueFd fd = rawConnection();
        EXPECT_EQ(::send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
        const timeval patience{kPatience.count(), 0};
        ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        char answer = 0;
        const auto received = ::recv(fd.get(), &answer, 1, 0);
        EXPECT_TRUE(received == 0 || (received < 0 && errno == ECONNRESET)) << bytes;
        EXPECT_EQ(bystander->version(), "1.4");
    }
    EXPECT_EQ(activator->starts(), 1);
}

TEST_F(DaemonTest, AClientThatDiesInTheMiddleLeavesNothing) {
    for (int i = 0; i < 200; ++i)
        std::ofstream(scratch.path(std::to_string(i) + ".log"));
    const auto keeper = Client::connect();
    ASSERT_EQ(keeper->version(), "1.4");
    const auto threads = countOf("task"), descriptors = countOf("fd");
    for (int i = 0; i < 20; ++i) {
        const pid_t child = ::fork();
        if (child == 0) {
            Client::connect()->perform("search-patterns", {scratch.path(), "0", "2", "log"},
                                       [i](const Dictionary& message) {
                                           if (i % 2 == 0 || message.size() == 2) ::_exit(0);
                                       });
            ::_exit(1);
        }
        int status = -1;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
    EXPECT_TRUE(keeper->perform("nop", {}).succeeded());
    EXPECT_TRUE(
        eventually([&] { return countOf("task") == threads && countOf("fd") == descriptors; }));
    EXPECT_EQ(activator->starts(), 1);
}

}  // namespace
}  // namespace corvalen::test
