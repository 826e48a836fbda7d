// SPDX-License-Identifier: MIT
#include "xpc/connection.hpp"

#include <atomic>
#include <future>

#include "xpc/connection_state.hpp"
#include "xpc/support.hpp"

namespace corvalen {
namespace {

using namespace test;

/// A connection, and the other half of its socket.
struct Ends {
    std::shared_ptr<Connection> connection;
    RawPeer peer;
};

Ends makeEnds(const ConnectionOptions& options = {}, std::shared_ptr<UserQuotas> quotas = nullptr) {
    SocketPair pair = makeSocketPair(SOCK_STREAM);
    return {openConnection(std::move(pair.first), PeerIdentity(), std::move(quotas), options),
            RawPeer(std::move(pair.second))};
}

Ends served(MessageHandler by, const ConnectionOptions& options = {},
            std::shared_ptr<UserQuotas> quotas = nullptr) {
    Ends ends = makeEnds(options, std::move(quotas));
    exportAndResume(*ends.connection, std::move(by));
    return ends;
}

std::pair<std::shared_ptr<Connection>, std::shared_ptr<Connection>> makeTwo() {
    SocketPair pair = makeSocketPair(SOCK_STREAM);
    return {Connection::adoptSocket(std::move(pair.first), nullptr),
            Connection::adoptSocket(std::move(pair.second), nullptr)};
}

bool isInvalid(const ErrorRef& error) {
    return error && error->domain() == kCocoaErrorDomain && error->code() == 4099;
}

class ConnectionTest : public NothingLeftBehind {};

TEST_F(ConnectionTest, AnswersWhatIsAskedAndNothingElse) {
    std::atomic<int> calls = 0;
    Ends ends = served([&](Connection& self, Array params) {
        ++calls;
        EXPECT_EQ(Connection::current(), &self);
        EXPECT_EQ(&self, ends.connection.get());
        if (params.empty()) return CallResult::refused("bad");
        if (params.size() == 2) return CallResult{Date{0, 4000000000U}, {}};
        return CallResult{std::move(params[0]), {}};
    });
    const std::vector<std::tuple<std::string, std::string, int>> cases = {
        {"94 00 09 a4 'ask:' 91 07", "94 01 09 c0 07", 1},
        {"94 00 0a a4 'ask:' 90", "94 01 0a a3 'bad' c0", 1},
        {"94 00 0b a4 'ask:' 92 01 02", "94 01 0b b9 'the result cannot be sent' c0", 1},
        // A request for a method without reply results in nil.
        {"94 00 0c a5 'tell:' 91 07", "94 01 0c c0 c0", 1},
        {"94 00 0d a5 'none:' 91 07", "94 01 0d ae 'unknown method' c0", 0},
        // Notifications get no reply and do not call a method with reply; a last request shows it.
        {"93 02 a5 'tell:' 91 07 94 00 0e a4 'ask:' 91 c3", "94 01 0e c0 c3", 2},
        {"93 02 a4 'ask:' 91 07 94 00 0e a4 'ask:' 91 c3", "94 01 0e c0 c3", 1},
        {"93 02 a5 'none:' 90 94 00 0e a4 'ask:' 91 c3", "94 01 0e c0 c3", 1},
        // A response without a request.
        {"94 01 63 c0 c0 94 00 0e a4 'ask:' 91 c3", "94 01 0e c0 c3", 1},
    };
    for (const auto& [sent, expected, expectedCalls] : cases) {
        SCOPED_TRACE(sent);
        calls = 0;
        ends.peer.send(bytes(sent));
        EXPECT_EQ(ends.peer.receive(bytes(expected).size()), bytes(expected));
        EXPECT_EQ(calls, expectedCalls);
    }
    // All messages that were sent before the end are handled.
    calls = 0;
    for (int i = 0; i < 1000; ++i)
        ends.peer.send(kTell);
    ends.peer.close();
    EXPECT_TRUE(eventually([&] { return calls == 1000; }));
}

TEST_F(ConnectionTest, BothSidesMayCallWhileTheyAreCalled) {
    const auto [here, there] = makeTwo();
    exportAndResume(*here, [](Connection&, const Array& params) {
        return CallResult{Value(params[0].number()->intValue() + 1), {}};
    });
    exportAndResume(*there, [](Connection& self, const Array& params) {
        // The response arrives on the connection whose thread is busy here.
        return CallResult{self.remoteObjectProxy().call("ask:", params), {}};
    });
    std::promise<Value> answer;
    const std::thread::id caller = std::this_thread::get_id();
    here->remoteObjectProxy().callWithReply("ask:", {5}, [&](Value result, const ErrorRef&) {
        EXPECT_NE(std::this_thread::get_id(), caller);
        answer.set_value(std::move(result));
    });
    EXPECT_EQ(answer.get_future().get(), Value(6));
    ErrorRef error;
    EXPECT_TRUE(here->remoteObjectProxy().call("none:", {}, &error).isNil());
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->localizedDescription(), "unknown method");
}

TEST_F(ConnectionTest, EveryoneWhoWaitsLearnsOfTheEndOnce) {
    for (const bool byPeer : {true, false}) {
        Ends ends = makeEnds();
        std::atomic<int> invalidations = 0;
        std::atomic<int> replies = 0;
        ends.connection->setInvalidationHandler([&] { ++invalidations; });
        ends.connection->resume();
        const RemoteObjectProxy proxy = ends.connection->remoteObjectProxy();
        const CallReply reply = [&](const Value&, const ErrorRef& error) {
            EXPECT_TRUE(isInvalid(error));
            ++replies;
        };
        proxy.callWithReply("ask:", {}, reply);
        const auto waiting = std::async(std::launch::async, [&] {
            ErrorRef error;
            proxy.call("ask:", {}, &error);
            EXPECT_TRUE(isInvalid(error));
        });
        EXPECT_EQ(ends.peer.receive(18).size(), 18U);
        byPeer ? ends.peer.close() : ends.connection->invalidate();
        EXPECT_TRUE(eventually([&] { return invalidations == 1 && replies == 1; }));
        ends.connection->invalidate();
        proxy.callWithReply("ask:", {}, reply);
        EXPECT_EQ(replies, 2);
        EXPECT_EQ(invalidations, 1);
    }
}

TEST_F(ConnectionTest, KeepsMessagesInTheirOrderWhileItIsSuspended) {
    Ends ends = served(echo);
    ends.peer.send(kAsk);
    EXPECT_EQ(ends.peer.receive(kEcho.size()), kEcho);
    // Its thread waits for a message now or soon.
    ends.connection->suspend();
    ends.peer.send(bytes("94 00 02 a4 'ask:' 90 94 00 03 a4 'ask:' 90"));
    EXPECT_FALSE(ends.peer.readable(100ms));
    ends.connection->resume();
    EXPECT_EQ(ends.peer.receive(10), bytes("94 01 02 c0 90 94 01 03 c0 90"));
}

TEST_F(ConnectionTest, EndsFromWithinItsOwnHandlers) {
    enum class How { invalidate, drop, fail };
    for (const How how : {How::invalidate, How::drop, How::fail}) {
        Ends ends = makeEnds();
        auto last = std::make_shared<std::shared_ptr<Connection>>(std::move(ends.connection));
        exportAndResume(**last, [how, last](Connection& self, const Array&) {
            if (how == How::invalidate) self.invalidate();
            if (how == How::drop) last->reset();
            if (how == How::fail) throw std::bad_alloc();
            return CallResult();
        });
        last.reset();
        ends.peer.send(kTell);
        EXPECT_TRUE(ends.peer.closedWithin());
    }
    // A callback that owns the last reference is destroyed on the connection's thread.
    Ends ends = makeEnds();
    ends.connection->resume();
    ends.connection->remoteObjectProxy().callWithReply(
        "ask:", {}, [last = std::exchange(ends.connection, nullptr)](auto&&...) {});
    ends.peer.send(bytes("94 01 00 c0 c0"));
    EXPECT_TRUE(ends.peer.closedWithin());
}

TEST_F(ConnectionTest, AMessageMustArriveInTimeOnceBegun) {
    ConnectionOptions options;
    options.arrivalTimeout = 300ms;
    const Ends idle = served(echo, options), slow = served(echo, options);
    // Progress does not extend the timeout.
    const auto start = Clock::now();
    slow.peer.send(bytes("94 00 01 a4 'ask:' 91 da 01 00"));
    while (!slow.peer.closedWithin(20ms)) {
        slow.peer.send("x");
        ASSERT_LT(Clock::now() - start, 5s);
    }
    EXPECT_GE(Clock::now() - start, 300ms);
    idle.peer.send(kAsk);
    EXPECT_EQ(idle.peer.receive(5), kEcho);
}

TEST_F(ConnectionTest, APeerThatDoesNotReadIsDropped) {
    Ends feedback = makeEnds();
    feedback.connection->setSendTimeout(200ms);
    std::vector<ErrorRef> errors;
    const auto proxy = feedback.connection->remoteObjectProxyWithErrorHandler(
        [&](const ErrorRef& error) { errors.push_back(error); });
    // A message that is too long does not end the connection.
    proxy.notify("tell:", {std::string(16 * kMiB, 'x')});
    for (int i = 0; i < 1000 && errors.size() < 2; ++i)
        proxy.notify("tell:", {std::string(4096, 'x')});
    ASSERT_EQ(errors.size(), 2U);
    EXPECT_EQ(*errors[0], *makePosixError(EMSGSIZE));
    EXPECT_TRUE(isInvalid(errors[1]));
    EXPECT_EQ(*errors[1]->underlyingError(), *makePosixError(ETIMEDOUT));

    // A peer that reads nothing is dropped; one that reads slowly is not.
    ConnectionOptions options;
    options.sendTimeout = 1s;
    const auto answer = [](Connection&, const Array&) {
        return CallResult{std::string(800000, 'x'), {}};
    };
    const Ends stuck = served(answer, options), slow = served(answer, options);
    stuck.peer.send(kAsk);
    slow.peer.send(kAsk);
    for (int pieces = 0; pieces < 10; ++pieces) {
        std::this_thread::sleep_for(*options.sendTimeout / 8);
        ASSERT_EQ(slow.peer.receive(80000).size(), 80000U);
    }
    EXPECT_TRUE(stuck.peer.closedWithin());
}

TEST_F(ConnectionTest, FlagsThatTheOtherSideSetsOnASharedSocketDoNotMatter) {
    SocketPair pair = makeSocketPair(SOCK_STREAM);
    const UniqueFd shared(::dup(pair.first.get()));
    const RawPeer peer(std::move(pair.second));
    const auto connection = Connection::adoptSocket(std::move(pair.first), nullptr);
    constexpr int kPassPidfd = 76;
    const int yes = 1;
    ASSERT_EQ(::fcntl(shared.get(), F_SETFL, O_NONBLOCK), 0);
    (void)::setsockopt(shared.get(), SOL_SOCKET, kPassPidfd, &yes, sizeof yes);
    exportAndResume(*connection, [](Connection&, const Array&) {
        return CallResult{std::string(300000, 'x'), {}};
    });
    const std::ptrdiff_t descriptors = openDescriptors();
    for (int i = 0; i < 20; ++i) {
        peer.send(kAsk.substr(0, 3));
        EXPECT_FALSE(peer.readable(1ms));
        peer.send(kAsk.substr(3));
        EXPECT_EQ(peer.receive(300009).size(), 300009U);
    }
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(ConnectionTest, DescriptorsPassBothWaysAndNeverStay) {
    const Ends ends = served([](Connection& self, Array params) {
        for (const Value& each : params)
            EXPECT_EQ(::fcntl(each.endpoint()->descriptor->get(), F_GETFD), FD_CLOEXEC);
        return echo(self, std::move(params));
    });
    const int own = ends.peer.fd();
    const std::string holder = bytes("94 00 09 a4 'ask:' 92 d4 01 01 d4 01 00");
    // Both messages arrive before the first read, each with its own descriptors.
    ends.peer.send(kTell + holder, {own, own});
    ends.peer.send(holder, {own, own});
    std::vector<UniqueFd> returned;
    std::array<char, 11> room{};
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(waitFor(own, POLLIN, std::nullopt));
        EXPECT_EQ(receive(own, room, returned).size, 11);
        EXPECT_EQ(std::string(room.data(), 11), bytes("94 01 09 c0 92 d4 01 00 d4 01 01"));
    }
    EXPECT_EQ(returned.size(), 4U);
    // More than a message may have, and more than the control buffer holds.
    for (const std::size_t count : {5U, 100U}) {
        const Ends other = served(echo);
        other.peer.send(kAsk, std::vector<int>(count, own));
        EXPECT_TRUE(other.peer.closedWithin());
    }
}

}  // namespace
}  // namespace corvalen
