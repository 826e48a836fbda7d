// SPDX-License-Identifier: MIT
// The client library against a helper inside the test, and what it says about failures.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <corvalen/client.hpp>
#include <corvalen/failure.hpp>
#include <corvalen/rights.hpp>
#include <cstring>
#include <future>
#include <numeric>
#include <thread>

#include "client/fake_helper.hpp"
#include "corvalen/error.hpp"
#include "support/child.hpp"
#include "support/golden.hpp"
#include "support/request_notation.hpp"
#include "xpc/messages.hpp"

namespace corvalen {
namespace {

using test::FakeHelper;
using test::SendFeedback;
using namespace std::chrono_literals;

constexpr OperationCode kCode = 12;
constexpr double kFinal = -1;

/// Sends `count` numbered messages, and the final one.
test::PerformOperation numbered(int count, bool isComplete = true) {
    return [=](std::uint64_t, const Array&, const SendFeedback& send) {
        for (int i = 0; i < count; ++i)
            send({{std::string(kQRLPORK_ProgressFraction), Value(i)}});
        if (isComplete) send(test::finalMessage());
        return test::success();
    };
}

OperationResult performAsync(Client& client, const FeedbackHandler& feedback) {
    const auto done = std::make_shared<std::promise<OperationResult>>();
    client.performAsync(kCode, {}, feedback,
                        [done](const OperationResult& result) { done->set_value(result); });
    return done->get_future().get();
}

TEST(ClientTest, GivesEachThreadItsFeedbackInOrderBeforeTheResult) {
    FakeHelper helper(numbered(500));
    const auto client = Client::connect(helper.path());
    const auto asynchronous = Client::connect(helper.path());
    std::vector<double> expected(501, kFinal);
    std::iota(expected.begin(), expected.end() - 1, 0.0);
    const auto receiveAll = [&](bool isAsynchronous) {
        for (int round = 0; round < 8; ++round) {
            std::vector<double> received;
            const auto receive = [&](const Dictionary& message) {
                // The last messages still wait in the socket when the reply has arrived.
                if (received.size() == 490) std::this_thread::sleep_for(20ms);
                const Value* fraction = message.find(kQRLPORK_ProgressFraction);
                received.push_back(fraction ? fraction->number()->doubleValue() : kFinal);
            };
            const auto result = isAsynchronous ? performAsync(*asynchronous, receive)
                                               : client->perform(kCode, {}, receive);
            EXPECT_TRUE(result.succeeded() && result.feedbackComplete);
            EXPECT_EQ(received, expected);
        }
    };
    std::vector<std::future<void>> threads;
    for (const bool isAsynchronous : {false, false, true, true})
        threads.push_back(std::async(std::launch::async, receiveAll, isAsynchronous));
}

TEST(ClientTest, ReportsMissingFeedbackAndWaitsForALimitedTime) {
    SendFeedback kept;
    const auto leftOpen = [&](std::uint64_t code, const Array& arguments,
                              const SendFeedback& send) {
        kept = send;
        return numbered(3)(code, arguments, send);
    };
    const std::tuple<test::PerformOperation, int, bool, std::chrono::seconds> cases[] = {
        {numbered(0, false), 0, false, 4s},
        {numbered(1, false), 1, false, 4s},
        {leftOpen, 4, false, 30s}};
    for (const auto& [perform, messages, isComplete, limit] : cases) {
        SCOPED_TRACE(messages);
        FakeHelper helper(perform);
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

TEST(ClientTest, RequestsArriveAsTheyAreMeant) {
    std::string performed;
    FakeHelper helper([&](std::uint64_t code, const Array& arguments, const SendFeedback&) {
        performed = fmt::format("perform {} {}", code, test::Description()(arguments));
        return test::success();
    });
    std::map<std::string, std::unique_ptr<Client>> clients;
    std::map<std::string, std::size_t> authorizations;
    std::size_t shown = 0;
    test::expectTranscript("requests.txt", [&](const std::string& line) {
        std::istringstream words(line);
        std::string name, action, argument, text;
        words >> name >> action >> argument;
        const int number = std::atoi(argument.c_str());
        std::unique_ptr<Client>& client = clients[name];
        ErrorRef error;
        if (action == "connects") client = Client::connect(helper.path(), &error);
        if (action == "ends") client.reset();
        if (action == "version") text = client->version(&error) + "\n";
        bool succeeds = true;
        if (action == "debug") succeeds = client->enableDebugMode(number != 0, &error);
        if (action == "register") succeeds = client->registerClient(number, &error);
        if (action == "unregister") succeeds = client->unregisterClient(number, &error);
        EXPECT_EQ(succeeds, !error);
        if (action == "cut") helper.cutConnections(number);
        if (action == "perform") {
            const auto [operation, arguments] = test::callOf(argument);
            error = client->perform(operation, arguments).error;
        }
        if (!performed.empty()) {
            const std::string sent(helper.authorizations().back().view());
            EXPECT_EQ(sent, client->authorizationData().view());
            const auto which = authorizations.emplace(sent, authorizations.size()).first->second;
            text = fmt::format("{} with authorization {}, {}... of {} bytes\n",
                               std::exchange(performed, ""), which, sent.substr(0, 8), sent.size());
        }
        for (const auto log = helper.log(); shown < log.size(); ++shown)
            text += test::replaced(log[shown], std::to_string(::getpid()), "<own>") + "\n";
        return text + (error ? describeFailure(error) + "\n" : "");
    });
}

TEST(ClientTest, SaysThatFeedbackCannotArrive) {
    FakeHelper helper(
        [](std::uint64_t, const Array&, const SendFeedback&) { return test::success(); });
    const auto client = Client::connect(helper.path());
    const FeedbackHandler ignored = [](const Dictionary&) {};
    // A success without the final message.
    EXPECT_FALSE(client->perform("search-patterns", {}, ignored).feedbackComplete);
    EXPECT_TRUE(client->perform("nop", {}, ignored).feedbackComplete);
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer needs descriptors";
#endif
    test::Child poor(::geteuid(), [&] {
        rlimit limit{};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        const auto own = Client::connect(helper.path());
        limit.rlim_cur = static_cast<rlim_t>(::dup(STDERR_FILENO)) + 1;
        ::setrlimit(RLIMIT_NOFILE, &limit);
        const OperationResult result = own->perform("search-patterns", {}, ignored);
        return !result.feedbackComplete && hostErrno(result.error) == EMFILE;
    });
    EXPECT_EQ(poor.wait(), 0);
}

TEST(ClientTest, EndsWithTheConnectionErrorWhenTheHelperDies) {
    std::promise<void> died;
    FakeHelper helper([&](std::uint64_t code, const Array& arguments, const SendFeedback& send) {
        Value reply = numbered(1, false)(code, arguments, send);
        helper.stop();
        died.set_value();
        return reply;
    });
    const auto client = Client::connect(helper.path());
    const auto result = client->perform(kCode, {}, [](const Dictionary&) {});
    died.get_future().wait();
    EXPECT_EQ(failureKind(result.error), FailureKind::notReachable);
    EXPECT_FALSE(result.feedbackComplete);
    EXPECT_EQ(failureKind(client->perform(kCode, {}).error), FailureKind::notReachable);
    EXPECT_EQ(client->version(), "");
}

/// Makes an error from "domain code key=value ..."; "<" precedes the underlying error.
ErrorRef errorOf(const std::string& notation) {
    std::istringstream words(notation);
    std::string domain, word;
    std::int64_t code = 0;
    if (!(words >> domain >> code)) return nullptr;
    std::optional<Dictionary> info;
    while (words >> std::quoted(word)) {
        if (!info) info.emplace();
        const std::size_t equals = word.find('=');
        if (word == "<" && std::getline(words, word))
            info->set(kUnderlyingErrorKey, errorOf(word));
        else
            info->set(word.substr(0, equals), word.substr(equals + 1));
    }
    return makeError(domain, code, std::move(info));
}

TEST(FailureTest, HasAKindAnErrnoAndADescription) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    constexpr const char* kKinds[] = {"none", "operation", "notReachable", "notAuthorized",
                                      "canceled"};
    const auto described = [&](const std::string& notation) {
        const ErrorRef error = errorOf(notation);
        return fmt::format("{}, {} \"{}\"", kKinds[static_cast<unsigned>(failureKind(error))],
                           ::strerrorname_np(hostErrno(error)), describeFailure(error));
    };
    test::expectRows("failures.txt", {{"failures of root", described}});
    // For other users EPERM is the authority's refusal. A child has a user of its own.
    test::Child somebody(65534, [] {
        return failureKind(makePosixError(EPERM)) == FailureKind::notAuthorized && !defineRights();
    });
    EXPECT_EQ(somebody.wait(), 0);
}

}  // namespace
}  // namespace corvalen
