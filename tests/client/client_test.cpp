// SPDX-License-Identifier: MIT
// The client library against a helper inside the test, and what it says about failures.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <corvalen/catalogue.hpp>
#include <corvalen/client.hpp>
#include <corvalen/failure.hpp>
#include <corvalen/rights.hpp>
#include <future>
#include <numeric>
#include <thread>

#include "client/fake_helper.hpp"
#include "corvalen/error.hpp"
#include "support/child.hpp"

namespace corvalen {
namespace {

using test::FakeHelper;
using test::SendFeedback;
using testing::StartsWith;
using namespace std::chrono_literals;

constexpr OperationCode kCode = 12;
constexpr double kFinal = -1;

Value replySuccess(std::uint64_t /*code*/, const Array& /*arguments*/,
                   const SendFeedback& /*send*/) {
    return test::success();
}

/// Sends `count` numbered messages and the final one.
test::PerformOperation numbered(int count) {
    return [count](std::uint64_t, const Array&, const SendFeedback& send) {
        for (int i = 0; i < count; ++i)
            send(test::progressMessage(i));
        send(test::finalMessage());
        return test::success();
    };
}

bool isConnectionLost(const OperationResult& result) {
    return result.error && result.error->domain() == kCocoaErrorDomain &&
           result.error->code() == cocoa::kConnectionInvalid;
}

TEST(ClientTest, GivesEachThreadItsFeedbackInOrderBeforePerformReturns) {
    FakeHelper helper(numbered(500));
    const auto client = Client::connect(helper.path());
    std::vector<double> expected(500);
    std::iota(expected.begin(), expected.end(), 0.0);
    expected.push_back(kFinal);
    std::vector<std::future<void>> threads(4);
    for (auto& thread : threads)
        thread = std::async(std::launch::async, [&] {
            for (int round = 0; round < 8; ++round) {
                std::vector<double> received;
                const auto result = client->perform(kCode, {}, [&](const Dictionary& message) {
                    // The last messages still wait in the socket when the reply has arrived.
                    if (received.size() == 490) std::this_thread::sleep_for(20ms);
                    const Value* fraction = message.find(kQRLPORK_ProgressFraction);
                    received.push_back(fraction ? fraction->number()->doubleValue() : kFinal);
                });
                EXPECT_TRUE(result.succeeded() && result.feedbackComplete);
                EXPECT_EQ(received, expected);
            }
        });
}

TEST(ClientTest, CallsTheCompletionAfterTheLastFeedback) {
    FakeHelper helper(numbered(100));
    const auto client = Client::connect(helper.path());
    int received = 0;
    std::promise<int> receivedAtCompletion;
    client->performAsync(
        kCode, {}, [&](const Dictionary&) { ++received; },
        [&](const OperationResult& result) {
            receivedAtCompletion.set_value(result.succeeded() ? received : -1);
        });
    EXPECT_EQ(receivedAtCompletion.get_future().get(), 101);
    EXPECT_TRUE(client->perform(kCode, {}).succeeded()) << "the connection goes on";
}

TEST(ClientTest, TellsWhetherItHasAllFeedbackAndDoesNotWaitForItForEver) {
    const auto withoutFinal = [](std::uint64_t, const Array&, const SendFeedback& send) {
        send(test::progressMessage(0.5));
        return test::success();
    };
    const std::tuple<test::PerformOperation, bool, int, bool, std::chrono::seconds> cases[] = {
        {replySuccess, false, 0, true, 4s},  // it is never opened
        {withoutFinal, false, 1, false, 4s},
        {numbered(3), true, 4, false, 30s}};
    for (const auto& [perform, staysOpen, messages, isComplete, limit] : cases) {
        SCOPED_TRACE(messages);
        FakeHelper helper(perform);
        helper.keepFeedbackOpen(staysOpen);
        const auto client = Client::connect(helper.path());
        int received = 0;
        const auto start = std::chrono::steady_clock::now();
        const auto result = client->perform(kCode, {}, [&](const Dictionary&) { ++received; });
        EXPECT_LT(std::chrono::steady_clock::now() - start, limit);
        EXPECT_TRUE(result.succeeded());
        EXPECT_EQ(result.feedbackComplete, isComplete);
        EXPECT_EQ(received, messages);
    }
}

TEST(ClientTest, SendsArgumentsAndOneAuthorizationPerClient) {
    Array received;
    std::uint64_t code = 0;
    FakeHelper helper([&](std::uint64_t sent, const Array& arguments, const SendFeedback&) {
        code = sent;
        received = arguments;
        return test::success();
    });
    const auto first = Client::connect(helper.path());
    const auto second = Client::connect(helper.path());
    const Array arguments{Value("/tmp/\xFF"), Value(7), Value(Data::copy("abc"))};
    EXPECT_TRUE(first->perform("modify-systemfile", arguments).succeeded());
    EXPECT_EQ(code, 0U);
    EXPECT_EQ(received, arguments);
    EXPECT_TRUE(first->perform(9998, {}).succeeded());
    EXPECT_TRUE(second->perform(9998, {}).succeeded());

    const auto sent = helper.authorizations();
    ASSERT_EQ(sent.size(), 3U);
    EXPECT_EQ(sent[0].bytes.size(), 32U);
    EXPECT_THAT(std::string(sent[0].view()), StartsWith("QRLAUTH\x01"));
    EXPECT_EQ(sent[0], sent[1]);
    EXPECT_NE(sent[0], sent[2]);
    EXPECT_EQ(sent[2], second->authorizationData());

    const auto unknown = first->perform("no-such-operation", {});
    EXPECT_EQ(unknown.error->code(), posixCodeFromErrno(EINVAL));
    EXPECT_EQ(helper.authorizations().size(), 3U);
}

TEST(ClientTest, RegistersItsProcessUntilItsLastClientEnds) {
    FakeHelper helper(replySuccess);
    const std::string own = "register " + std::to_string(::getpid()) + "\n";
    auto first = Client::connect(helper.path()), second = Client::connect(helper.path());
    ErrorRef error;
    EXPECT_EQ(first->version(&error), "1.4");
    EXPECT_TRUE(first->enableDebugMode(true, &error));
    for (const auto* client : {&first, &second, &second})
        EXPECT_TRUE((*client)->registerClient(0, &error));
    EXPECT_TRUE(first->registerClient(17, &error) && first->unregisterClient(17, &error));
    EXPECT_FALSE(error);
    first.reset();
    EXPECT_EQ(helper.log().size(), 6U);
    second.reset();
    EXPECT_EQ(helper.waitForLog(7),
              "debug 1\n" + own + own + own + "register 17\nunregister 17\nun" + own);
}

TEST(ClientTest, RegistersAgainWhenTheHelperWasJustEnding) {
    FakeHelper helper(replySuccess);
    helper.cutConnections(3);
    const auto client = Client::connect(helper.path());
    ErrorRef error;
    EXPECT_TRUE(client->registerClient(0, &error));
    EXPECT_TRUE(client->perform(kCode, {}).succeeded());
    EXPECT_EQ(helper.log().size(), 1U);

    helper.cutConnections(1000);
    EXPECT_FALSE(Client::connect(helper.path())->registerClient(0, &error));
    EXPECT_EQ(error->code(), cocoa::kConnectionInvalid);
}

TEST(ClientTest, EndsWithTheConnectionErrorWhenTheHelperDies) {
    std::promise<void> begun;
    std::promise<void> lost;
    FakeHelper helper([&](std::uint64_t, const Array&, const SendFeedback& send) {
        send(test::progressMessage(0.1));
        begun.set_value();
        lost.get_future().wait_for(test::kPatience);
        return test::success();
    });
    auto death = std::async(std::launch::async, [&] {
        begun.get_future().wait();
        helper.stop();
    });
    const auto client = Client::connect(helper.path());
    const auto result = client->perform(kCode, {}, [](const Dictionary&) {});
    lost.set_value();
    death.get();
    EXPECT_TRUE(isConnectionLost(result));
    EXPECT_FALSE(result.feedbackComplete);
    EXPECT_TRUE(isConnectionLost(client->perform(kCode, {})));
    EXPECT_EQ(client->version(), "");
}

ErrorRef cocoaError(std::int64_t code, const ErrorRef& inner = nullptr) {
    Dictionary info{{std::string(kFilePathKey), "/a/b"}};
    if (inner) info.set(kUnderlyingErrorKey, Value(inner));
    return makeError(kCocoaErrorDomain, code, info);
}

TEST(FailureTest, SortsErrorsAndFindsTheirErrno) {
    const ErrorRef plainPermission = makePosixError(EPERM);
    const std::tuple<ErrorRef, FailureKind, int> cases[] = {
        {nullptr, FailureKind::none, 0},
        {makePosixError(ENOTEMPTY), FailureKind::operation, ENOTEMPTY},
        {makePosixError(ECANCELED), FailureKind::canceled, ECANCELED},
        {plainPermission, FailureKind::operation, EPERM},  // of user 0
        {makePosixError(EPERM, Dictionary{{"k", "v"}}), FailureKind::operation, EPERM},
        {makeOSStatusError(-60005), FailureKind::notAuthorized, EPERM},
        {makeOSStatusError(-60006), FailureKind::canceled, ECANCELED},
        {makeOSStatusError(-50), FailureKind::operation, EIO},
        {makeError(kCocoaErrorDomain, 4099), FailureKind::notReachable, ECONNREFUSED},
        {cocoaError(513, makePosixError(EBUSY)), FailureKind::operation, EBUSY},
        {cocoaError(516), FailureKind::operation, EEXIST},
        {makeError("x.y", 18,
                   Dictionary{{std::string(kUnderlyingErrorKey),
                               Value(cocoaError(512, makePosixError(ELOOP)))}}),
         FailureKind::operation, ELOOP},
    };
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    for (const auto& [error, kind, errnoValue] : cases) {
        EXPECT_EQ(failureKind(error), kind) << describeFailure(error);
        EXPECT_EQ(hostErrno(error), errnoValue) << describeFailure(error);
    }
    // For other users EPERM is the authority's refusal. A child has a user of its own.
    test::Child somebody(65534, [&] {
        return failureKind(plainPermission) == FailureKind::notAuthorized && !defineRights();
    });
    EXPECT_EQ(somebody.wait(), 0);
}

TEST(FailureTest, PutsTheWholeChainIntoWords) {
    EXPECT_EQ(describeFailure(nullptr), "");
    const ErrorRef error = makeError(
        "x.y", 18,
        Dictionary{
            {std::string(kLocalizedDescriptionKey), "It is protected."},
            {std::string(kLocalizedRecoverySuggestionKey), "Look at '/a/c'."},
            {std::string(kFilePathKey), "/a/c"},
            {std::string(kUnderlyingErrorKey), Value(cocoaError(513, makePosixError(EPERM)))}});
    EXPECT_EQ(describeFailure(error),
              "It is protected.\nLook at '/a/c'.\n"
              "caused by: The file could not be changed: no permission.\npath: /a/b\n"
              "caused by: Operation not permitted");
    EXPECT_EQ(describeFailure(makeOSStatusError(-60006)),
              "The authorization was canceled by the user.");
}

TEST(CatalogueTest, TellsWhoMayAskForAnOperation) {
    EXPECT_EQ(findOperation(9998)->policy, OperationPolicy::anybody);
    EXPECT_EQ(findOperation("search-patterns")->policy, OperationPolicy::administrators);
    EXPECT_EQ(findOperation(9999), nullptr);
}

}  // namespace
}  // namespace corvalen
