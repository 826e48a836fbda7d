// SPDX-License-Identifier: MIT
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <corvalen/client.hpp>
#include <future>
#include <numeric>
#include <thread>

#include "client/fake_helper.hpp"
#include "corvalen/error.hpp"

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

TEST(ClientTest, TellsAnswersFromFailures) {
    const Dictionary answer{{"Size", Value(std::uint64_t{1000})}};
    const ErrorRef failure = makeError("some.domain", 4, Dictionary{{"k", "v"}});
    std::vector<Value> replies{Value(makeError("some.domain", 0, answer)), Value(failure),
                               Value("no error at all")};
    FakeHelper helper([&](std::uint64_t code, const Array&, const SendFeedback&) {
        return replies.at(static_cast<std::size_t>(code));
    });
    const auto client = Client::connect(helper.path());
    const auto answered = client->perform(OperationCode{0}, {});
    EXPECT_TRUE(answered.succeeded());
    EXPECT_EQ(answered.answer, answer);
    const auto failed = client->perform(OperationCode{1}, {});
    ASSERT_FALSE(failed.succeeded());
    EXPECT_EQ(*failed.error, *failure);
    EXPECT_TRUE(failed.answer.empty());
    EXPECT_FALSE(client->perform(OperationCode{2}, {}).succeeded());
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

TEST(ClientTest, StopWaitsForWhatTheHelperAnswers) {
    std::promise<void> begun;
    std::promise<void> goOn;
    FakeHelper helper([&](std::uint64_t, const Array&, const SendFeedback& send) {
        begun.set_value();
        goOn.get_future().wait();
        send(test::finalMessage());
        return Value(makePosixError(ECANCELED, Dictionary{{"ObjectCount", 7}}));
    });
    auto client = Client::connect(helper.path());
    EXPECT_TRUE(client->registerClient());
    bool isFinal = false;
    auto request = std::async(std::launch::async, [&] {
        return client->perform(kCode, {}, [&](const Dictionary&) { isFinal = true; });
    });
    begun.get_future().wait();
    client->stop();
    EXPECT_EQ(request.wait_for(100ms), std::future_status::timeout);
    goOn.set_value();
    const auto result = request.get();
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->code(), posixCodeFromErrno(ECANCELED));
    EXPECT_EQ(*result.error->userInfo()->find("ObjectCount"), Value(7));
    EXPECT_TRUE(isFinal && result.feedbackComplete);
    EXPECT_TRUE(isConnectionLost(client->perform(kCode, {}))) << "nothing more can be asked";
    client.reset();
    EXPECT_THAT(helper.waitForLog(2), testing::HasSubstr("unregister"));
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

}  // namespace
}  // namespace corvalen
