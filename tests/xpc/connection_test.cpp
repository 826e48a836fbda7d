// SPDX-License-Identifier: MIT
#include "xpc/connection.hpp"

#include <atomic>
#include <future>

#include "support/golden.hpp"
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

/// Sets the flags that a peer could set if it shared the socket. They must not matter.
Ends makeEnds(const ConnectionOptions& options = {}) {
    constexpr int kPassPidfd = 76;
    const int yes = 1;
    SocketPair pair = makeSocketPair(SOCK_STREAM);
    EXPECT_EQ(::fcntl(pair.first.get(), F_SETFL, O_NONBLOCK), 0);
    (void)::setsockopt(pair.first.get(), SOL_SOCKET, kPassPidfd, &yes, sizeof yes);
    return {openConnection(std::move(pair.first), PeerIdentity(), nullptr, options),
            RawPeer(std::move(pair.second))};
}

Ends served(MessageHandler by, const ConnectionOptions& options = {}) {
    Ends ends = makeEnds(options);
    exportAndResume(*ends.connection, std::move(by));
    return ends;
}

class ConnectionTest : public NothingLeftBehind {};

/// The object of replies.txt.
CallResult handle(Connection& self, Array params) {
    EXPECT_EQ(Connection::current(), &self);
    if (params.empty()) return CallResult::refused("bad");
    if (params.size() == 2) return CallResult{Date{0, wire::kNanosecondsPerSecond}, {}};
    if (params[0] == Value("invalidate")) self.invalidate();
    if (params[0] == Value("fail")) throw std::bad_alloc();
    for (const Value& each : params[0].array() != nullptr ? *params[0].array() : Array())
        EXPECT_EQ(::fcntl(each.endpoint()->descriptor->get(), F_GETFD), FD_CLOEXEC);
    return CallResult{std::move(params[0]), {}};
}

/// Returns the calls and replies of a peer that sends this and ends its side, or closes it.
std::string outcomeOf(bool peerGoes, const std::string& notation) {
    std::atomic<int> calls = 0;
    std::atomic<bool> ended = false;
    Ends ends = makeEnds();
    forEachPiece(notation, [&](const std::string& piece, std::size_t descriptors) {
        std::vector<int> numbers;
        const std::vector<UniqueFd> files = numberedFiles(descriptors);
        numbers.reserve(files.size());
        for (const UniqueFd& each : files)
            numbers.push_back(each.get());
        ends.peer.send(piece, numbers);
    });
    peerGoes ? ends.peer.close() : (void)::shutdown(ends.peer.fd(), SHUT_WR);
    ends.connection->setInvalidationHandler([&] { ended = true; });
    exportAndResume(*ends.connection, [&](Connection& self, Array params) {
        ++calls;
        return handle(self, std::move(params));
    });
    EXPECT_TRUE(eventually([&] { return ended.load(); }));
    std::string text = "calls: " + std::to_string(calls);
    if (peerGoes) return text;
    MessageStream replies(UniqueFd(::dup(ends.peer.fd())), nullptr, 10s);
    for (Message message; replies.read(message);)
        text += "; " + described(message);
    return text;
}

TEST_F(ConnectionTest, HandlesWhatWasSentBeforeTheEnd) {
    expectRows("replies.txt", {{"a peer that ends", std::bind_front(outcomeOf, false)},
                               {"a peer that is gone", std::bind_front(outcomeOf, true)}});
}

TEST_F(ConnectionTest, BothSidesMayCallWhileTheyAreCalled) {
    SocketPair pair = makeSocketPair(SOCK_STREAM);
    const auto here = Connection::adoptSocket(std::move(pair.first), nullptr);
    const auto there = Connection::adoptSocket(std::move(pair.second), nullptr);
    exportAndResume(*here, [](Connection&, const Array& params) {
        return CallResult{Value(params[0].number()->intValue() + 1), {}};
    });
    exportAndResume(*there, [](Connection& self, const Array& params) {
        // The response arrives on the connection whose thread is busy here.
        return CallResult{self.remoteObjectProxy().call("ask:", params).value(), {}};
    });
    std::promise<Value> answer;
    const std::thread::id caller = std::this_thread::get_id();
    here->remoteObjectProxy().callWithReply("ask:", {5}, [&](CallOutcome outcome) {
        EXPECT_NE(std::this_thread::get_id(), caller);
        answer.set_value(*std::move(outcome));
    });
    EXPECT_EQ(answer.get_future().get(), Value(6));
    const CallOutcome refused = here->remoteObjectProxy().call("none:", {});
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error()->localizedDescription(), "unknown method");
}

TEST_F(ConnectionTest, ALargeReplyIsPaidForUntilItIsSent) {
    const auto quotas = std::make_shared<UserQuotas>();
    SocketPair pair = makeSocketPair(SOCK_STREAM);
    const auto connection = openConnection(std::move(pair.first), PeerIdentity(), quotas);
    const RawPeer peer(std::move(pair.second));
    constexpr std::size_t kSize = std::size_t{2} << 20U;  // more than the socket takes at once
    exportAndResume(*connection, [](Connection&, const Array&) {
        return CallResult{Value(std::string(kSize, 'x')), {}};
    });
    const auto paid = [&] { return quotas->charged(Resource::decodedBytes); };
    peer.send(kAsk);
    EXPECT_TRUE(eventually([&] { return paid() > kSize; }));
    EXPECT_EQ(peer.receive(kSize + 9).size(), kSize + 9);
    EXPECT_TRUE(eventually([&] { return paid() == 0; }));
}

TEST_F(ConnectionTest, TellsItsErrorHandlerOfFailuresAlone) {
    SocketPair pair = makeSocketPair(SOCK_STREAM);
    const auto here = Connection::adoptSocket(std::move(pair.first), nullptr);
    const auto there = Connection::adoptSocket(std::move(pair.second), nullptr);
    exportAndResume(*here, echo);
    exportAndResume(*there, echo);
    std::atomic<int> errors = 0;
    std::atomic<int> replies = 0;
    const auto useAll = [&](const RemoteObjectProxy& proxy, bool succeeds) {
        proxy.notify("note:", {});
        proxy.notifyLater("note:", {});
        proxy.flush();
        EXPECT_EQ(proxy.call("ask:", {5}).has_value(), succeeds);
        proxy.callWithReply("ask:", {5}, [&](const CallOutcome&) { ++replies; });
    };
    const auto told = here->remoteObjectProxyWithErrorHandler([&](const ErrorRef& error) {
        EXPECT_TRUE(error && isInvalid(error));
        ++errors;
    });
    useAll(told, true);
    EXPECT_TRUE(eventually([&] { return replies == 1; }));
    EXPECT_EQ(errors, 0);
    here->invalidate();
    useAll(told, false);
    useAll(here->remoteObjectProxy(), false);
    EXPECT_EQ(errors, 4);  // what is sent later fails when it is flushed
    EXPECT_EQ(replies, 3);
}

TEST_F(ConnectionTest, EveryPendingCallFailsOnceAtTheEnd) {
    for (const bool byPeer : {true, false}) {
        Ends ends = makeEnds();
        std::atomic<int> invalidations = 0;
        std::atomic<int> replies = 0;
        ends.connection->setInvalidationHandler([&] { ++invalidations; });
        ends.connection->resume();
        const RemoteObjectProxy proxy = ends.connection->remoteObjectProxy();
        const CallReply reply = [&](const CallOutcome& outcome) {
            EXPECT_TRUE(!outcome && isInvalid(outcome.error()));
            ++replies;
        };
        proxy.callWithReply("ask:", {}, reply);
        const auto waiting = std::async(std::launch::async, [&] {
            const CallOutcome outcome = proxy.call("ask:", {});
            EXPECT_TRUE(!outcome && isInvalid(outcome.error()));
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

TEST_F(ConnectionTest, AHandlerThatIsSetLateIsToldOfTheEnd) {
    Ends ends = makeEnds();
    std::atomic<bool> ended = false;
    ends.connection->resume();
    ends.connection->setInvalidationHandler([&] { ended = true; });
    ends.peer.close();
    EXPECT_TRUE(eventually([&] { return ended.load(); }));
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

TEST_F(ConnectionTest, KeptMessagesGoWithTheNextAndInOrder) {
    const Ends ends = makeEnds();
    const RemoteObjectProxy proxy = ends.connection->remoteObjectProxy();
    proxy.notifyLater("tell:", {1});
    proxy.notifyLater("tell:", {2});
    EXPECT_FALSE(ends.peer.readable(0ms));
    proxy.notify("tell:", {3});
    EXPECT_EQ(ends.peer.receive(30), bytes("93 02 a5 'tell:' 91 01 93 02 a5 'tell:' 91 02 "
                                           "93 02 a5 'tell:' 91 03"));
    proxy.notifyLater("tell:", {4});
    // One that is too long is refused alone; one that exceeds the space sends all.
    proxy.notifyLater("tell:", {std::string(wire::kMaximumMessageSize, 'x')});
    EXPECT_FALSE(ends.peer.readable(0ms));
    proxy.notifyLater("tell:", {std::string(65000, 'x')});
    EXPECT_EQ(ends.peer.receive(10), bytes("93 02 a5 'tell:' 91 04"));
    EXPECT_EQ(ends.peer.receive(65012).size(), 65012U);
    proxy.notifyLater("tell:", {5});
    proxy.flush();
    EXPECT_EQ(ends.peer.receive(10), bytes("93 02 a5 'tell:' 91 05"));
}

TEST_F(ConnectionTest, QueuesALimitedNumberOfMessagesDuringACall) {
    for (const bool isExceeded : {false, true}) {
        const Ends ends = makeEnds();
        for (std::size_t i = 0; i < wire::kMaximumQueuedMessages + isExceeded; ++i)
            ends.peer.send(kTell);
        ends.peer.send(bytes("94 01 00 c0 07"));
        const CallOutcome outcome = ends.connection->remoteObjectProxy().call("ask:", {});
        EXPECT_TRUE(isExceeded ? !outcome && isInvalid(outcome.error()) : outcome == Value(7));
    }
}

TEST_F(ConnectionTest, ItsLastReferenceMayGoOnItsOwnThread) {
    for (const bool inHandler : {true, false}) {
        Ends ends = makeEnds();
        const auto last = std::make_shared<std::shared_ptr<Connection>>(ends.connection);
        exportAndResume(*ends.connection, [last](auto&&...) {
            last->reset();
            return CallResult();
        });
        // A callback that owns the last reference is destroyed on the connection's thread, too.
        if (!inHandler)
            ends.connection->remoteObjectProxy().callWithReply(
                "ask:", {}, [owned = std::exchange(*last, nullptr)](auto&&...) {});
        ends.connection.reset();
        ends.peer.send(inHandler ? kTell : bytes("94 01 00 c0 c0"));
        EXPECT_TRUE(ends.peer.closedWithin());
    }
}

TEST_F(ConnectionTest, AMessageMustArriveInTimeOnceBegun) {
    const ConnectionOptions options{.arrivalTimeout = 300ms};
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
    proxy.notify("tell:", {std::string(wire::kMaximumMessageSize, 'x')});
    for (int i = 0; i < 1000 && errors.size() < 2; ++i)
        proxy.notify("tell:", {std::string(4096, 'x')});
    ASSERT_EQ(errors.size(), 2U);
    EXPECT_EQ(*errors[0], *makePosixError(EMSGSIZE));
    EXPECT_TRUE(isInvalid(errors[1]));
    EXPECT_EQ(*errors[1]->underlyingError(), *makePosixError(ETIMEDOUT));

    // A peer that reads nothing is dropped; one that reads slowly is not.
    const ConnectionOptions options{.sendTimeout = 1s};
    const auto answer = [](Connection&, const Array&) {
        return CallResult{std::string(800000, 'x'), {}};
    };
    const Ends stuck = served(answer, options), slow = served(answer, options);
    stuck.peer.send(kAsk);
    slow.peer.send(kAsk);
    for (int pieces = 0; pieces < 10; ++pieces) {
        std::this_thread::sleep_for(*options.sendTimeout / 5);
        ASSERT_EQ(slow.peer.receive(80000).size(), 80000U);
    }
    EXPECT_TRUE(stuck.peer.closedWithin());
}

}  // namespace
}  // namespace corvalen
