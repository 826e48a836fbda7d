// SPDX-License-Identifier: MIT
#include "xpc/connection.hpp"

#include <atomic>
#include <future>

#include "xpc/connection_core.hpp"
#include "xpc/support.hpp"

namespace corvalen {
namespace {

using namespace std::chrono_literals;
using test::bytes;
using test::echo;
using test::eventually;
using test::exportAndResume;
using test::RawPeer;

/// A connection, and the other half of its socket.
struct Ends {
    std::shared_ptr<Connection> connection;
    RawPeer peer;
};

Ends makeEnds(const ConnectionOptions& options = {}) {
    SocketPair pair = makeSocketPair(SOCK_STREAM);
    PeerIdentity peer = peerIdentityOfSocket(pair.first.get());
    return {openConnection(std::move(pair.first), peer, nullptr, options).connection,
            RawPeer(std::move(pair.second))};
}

using Two = std::pair<std::shared_ptr<Connection>, std::shared_ptr<Connection>>;

Two makeTwo() {
    SocketPair pair = makeSocketPair(SOCK_STREAM);
    return {Connection::adoptSocket(std::move(pair.first), nullptr),
            Connection::adoptSocket(std::move(pair.second), nullptr)};
}

bool isInvalid(const ErrorRef& error) {
    return error && error->domain() == kCocoaErrorDomain &&
           error->code() == cocoa::kConnectionInvalid;
}

class ConnectionTest : public test::NothingLeftBehind {};

TEST_F(ConnectionTest, AnswersWhatIsAskedAndNothingElse) {
    std::atomic<int> calls = 0;
    Ends ends = makeEnds();
    exportAndResume(*ends.connection, [&](Connection& self, std::string_view, Array params) {
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
        // A method without reply may be requested: the result is nil.
        {"94 00 0c a5 'tell:' 91 07", "94 01 0c c0 c0", 1},
        {"94 00 0d a5 'none:' 91 07", "94 01 0d ae 'unknown method' c0", 0},
        // Never answered; a method with reply is not even called. A last request shows it.
        {"93 02 a5 'tell:' 91 07 94 00 0e a4 'ask:' 91 c3", "94 01 0e c0 c3", 2},
        {"93 02 a4 'ask:' 91 07 94 00 0e a4 'ask:' 91 c3", "94 01 0e c0 c3", 1},
        {"93 02 a5 'none:' 90 94 00 0e a4 'ask:' 91 c3", "94 01 0e c0 c3", 1},
        // An answer to nothing.
        {"94 01 63 c0 c0 94 00 0e a4 'ask:' 91 c3", "94 01 0e c0 c3", 1},
    };
    for (const auto& [sent, expected, expectedCalls] : cases) {
        SCOPED_TRACE(sent);
        calls = 0;
        ends.peer.send(bytes(sent));
        const std::string answer = bytes(expected);
        EXPECT_EQ(ends.peer.receive(answer.size()), answer);
        EXPECT_EQ(calls, expectedCalls);
    }
    // What was sent before the end is handled, all of it.
    calls = 0;
    for (int i = 0; i < 1000; ++i)
        ends.peer.send(bytes("93 02 a5 'tell:' 91 c0"));
    ends.peer.close();
    EXPECT_TRUE(eventually([&] { return calls == 1000; }));
}

TEST_F(ConnectionTest, CallsOfManyThreadsShareAConnectionThatHasNoThread) {
    const auto [here, there] = makeTwo();
    exportAndResume(*there, echo);
    const std::ptrdiff_t threads = test::runningThreads();
    const RemoteObjectProxy proxy = here->remoteObjectProxy();
    EXPECT_EQ(proxy.call("ask:", {1}), Value(Array{1}));
    EXPECT_EQ(test::runningThreads(), threads);
    std::vector<std::thread> callers;
    std::atomic<int> wrong = 0;
    for (int caller = 0; caller < 4; ++caller) {
        callers.emplace_back([&, caller] {
            for (int i = 0; i < 500; ++i) {
                const Array params{caller, i};
                if (proxy.call("ask:", params) != Value(params)) ++wrong;
            }
        });
    }
    for (std::thread& caller : callers)
        caller.join();
    EXPECT_EQ(wrong, 0);
}

TEST_F(ConnectionTest, BothSidesMayCallWhileTheyAreCalled) {
    const auto [here, there] = makeTwo();
    exportAndResume(*here, [](Connection&, std::string_view, Array params) {
        return CallResult{Value(params[0].number()->intValue() + 1), {}};
    });
    exportAndResume(*there, [](Connection& self, std::string_view, Array params) {
        // The answer comes over the connection whose thread is busy here.
        return CallResult{self.remoteObjectProxy().call("ask:", params), {}};
    });
    std::promise<Value> answer;
    const std::thread::id caller = std::this_thread::get_id();
    here->remoteObjectProxy().callWithReply("ask:", {5}, [&](Value result, const ErrorRef&) {
        EXPECT_NE(std::this_thread::get_id(), caller);
        answer.set_value(std::move(result));
    });
    EXPECT_EQ(answer.get_future().get(), Value(6));
    EXPECT_EQ(here->remoteObjectProxy().call("ask:", {8}), Value(9));
    ErrorRef error;
    int handled = 0;
    const auto proxy = here->remoteObjectProxyWithErrorHandler([&](const ErrorRef&) { ++handled; });
    EXPECT_TRUE(proxy.call("none:", {}, &error).isNil());
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->localizedDescription(), "unknown method");
    EXPECT_EQ(handled, 1);
}

TEST_F(ConnectionTest, EveryoneWhoWaitsLearnsOfTheEndOnce) {
    for (const bool byPeer : {true, false}) {
        SCOPED_TRACE(byPeer ? "the other side closes" : "invalidated");
        Ends ends = makeEnds();
        std::atomic<int> invalidations = 0;
        std::atomic<int> replies = 0;
        ends.connection->setInvalidationHandler([&] { ++invalidations; });
        ends.connection->resume();
        const RemoteObjectProxy proxy = ends.connection->remoteObjectProxy();
        proxy.callWithReply("ask:", {}, [&](const Value&, const ErrorRef& error) {
            EXPECT_TRUE(isInvalid(error));
            ++replies;
        });
        std::future<ErrorRef> waiting = std::async(std::launch::async, [&] {
            ErrorRef error;
            proxy.call("ask:", {}, &error);
            return error;
        });
        EXPECT_EQ(ends.peer.receive(18).size(), 18U);
        byPeer ? ends.peer.close() : ends.connection->invalidate();
        EXPECT_TRUE(isInvalid(waiting.get()));
        EXPECT_TRUE(eventually([&] { return invalidations == 1 && replies == 1; }));
        ends.connection->invalidate();
        ErrorRef error;
        proxy.call("ask:", {}, &error);
        EXPECT_TRUE(isInvalid(error));
        proxy.callWithReply("ask:", {}, [&](const Value&, const ErrorRef&) { ++replies; });
        EXPECT_EQ(replies, 2);
        EXPECT_EQ(invalidations, 1);
    }
}

TEST_F(ConnectionTest, EndsFromWithinItsOwnHandlers) {
    enum class How { invalidate, drop, fail };
    for (const How how : {How::invalidate, How::drop, How::fail}) {
        Ends ends = makeEnds();
        auto last = std::make_shared<std::shared_ptr<Connection>>(ends.connection);
        exportAndResume(*ends.connection, [how, last](Connection& self, std::string_view, Array) {
            if (how == How::invalidate) self.invalidate();
            if (how == How::drop) last->reset();
            if (how == How::fail) throw std::bad_alloc();
            return CallResult();
        });
        ends.connection.reset();
        last.reset();
        ends.peer.send(bytes("93 02 a5 'tell:' 90"));
        EXPECT_TRUE(ends.peer.closedWithin(10s));
    }
    Ends ends = makeEnds();
    ends.connection.reset();
    EXPECT_TRUE(ends.peer.closedWithin(10s));
}

TEST_F(ConnectionTest, SuspendedItLetsMessagesWait) {
    Ends ends = makeEnds();
    std::atomic<int> told = 0;
    exportAndResume(*ends.connection, [&](Connection& self, std::string_view, Array) {
        if (++told == 1) self.suspend();
        return CallResult();
    });
    ends.peer.send(bytes("93 02 a5 'tell:' 90 93 02 a5 'tell:' 90"));
    EXPECT_TRUE(eventually([&] { return told == 1; }));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(told, 1);
    // A call reads past the waiting message, which is handled once resumed.
    ends.peer.send(bytes("94 01 00 c0 2a"));
    EXPECT_EQ(ends.connection->remoteObjectProxy().call("ask:", {}), Value(42));
    EXPECT_EQ(told, 1);
    ends.connection->resume();
    EXPECT_TRUE(eventually([&] { return told == 2; }));
}

TEST_F(ConnectionTest, AMessageMustArriveInTimeOnceBegun) {
    ConnectionOptions options;
    options.arrivalTimeout = 300ms;
    Ends idle = makeEnds(options);
    exportAndResume(*idle.connection, echo);
    Ends slow = makeEnds(options);
    exportAndResume(*slow.connection, echo);
    // Progress does not buy time.
    const auto start = std::chrono::steady_clock::now();
    slow.peer.send(bytes("94 00 01 a4 'ask:' 91 da 01 00"));
    while (!slow.peer.closedWithin(20ms)) {
        slow.peer.send("x");
        ASSERT_LT(std::chrono::steady_clock::now() - start, 5s);
    }
    EXPECT_GE(std::chrono::steady_clock::now() - start, 300ms);
    idle.peer.send(bytes("94 00 09 a4 'ask:' 90"));
    EXPECT_EQ(idle.peer.receive(5), bytes("94 01 09 c0 90"));
}

TEST_F(ConnectionTest, APeerThatDoesNotReadIsDropped) {
    Ends feedback = makeEnds();
    feedback.connection->setSendTimeout(200ms);
    std::vector<ErrorRef> errors;
    const auto proxy = feedback.connection->remoteObjectProxyWithErrorHandler(
        [&](const ErrorRef& error) { errors.push_back(error); });
    // What cannot be sent at all costs the connection nothing.
    proxy.notify("tell:", {std::string(16 * 1024 * 1024, 'x')});
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_EQ(*errors[0], *makePosixError(EMSGSIZE));
    for (int i = 0; i < 1000 && errors.size() < 2; ++i)
        proxy.notify("tell:", {std::string(4096, 'x')});
    ASSERT_EQ(errors.size(), 2U);
    EXPECT_TRUE(isInvalid(errors[1]));
    EXPECT_EQ(*errors[1]->underlyingError(), *makePosixError(ETIMEDOUT));
    // Dropped, it does not wait again.
    const auto start = std::chrono::steady_clock::now();
    proxy.notify("tell:", {1});
    EXPECT_EQ(errors.size(), 3U);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 150ms);

    // A service whose answer nobody takes; slow is not stuck: what is read counts as progress.
    ConnectionOptions options;
    options.sendTimeout = 200ms;
    Ends stuck = makeEnds(options);
    Ends slow = makeEnds(options);
    for (const Ends* ends : {&stuck, &slow}) {
        exportAndResume(*ends->connection, [](Connection&, std::string_view, Array) {
            return CallResult{std::string(800000, 'x'), {}};
        });
        ends->peer.send(bytes("94 00 09 a4 'ask:' 90"));
    }
    for (std::size_t got = 0; got < 800000; got += 80000) {
        std::this_thread::sleep_for(50ms);
        ASSERT_EQ(slow.peer.receive(80000).size(), 80000U);
    }
    EXPECT_TRUE(stuck.peer.closedWithin(10s));
}

TEST_F(ConnectionTest, FlagsThatTheOtherSideSetsOnASharedSocketDoNotMatter) {
    SocketPair pair = makeSocketPair(SOCK_STREAM);
    const UniqueFd shared(::dup(pair.first.get()));
    const RawPeer peer(std::move(pair.second));
    const auto connection = Connection::adoptSocket(std::move(pair.first), nullptr);
    ASSERT_EQ(::fcntl(shared.get(), F_SETFL, O_NONBLOCK), 0);
    constexpr int kPassPidfd = 76;
    const int yes = 1;
    (void)::setsockopt(shared.get(), SOL_SOCKET, kPassPidfd, &yes, sizeof yes);
    (void)::setsockopt(shared.get(), SOL_SOCKET, SO_PASSCRED, &yes, sizeof yes);
    exportAndResume(*connection, [](Connection&, std::string_view, Array params) {
        return CallResult{std::string(params.empty() ? 0 : 1000000, 'x'), {}};
    });
    const std::ptrdiff_t descriptors = test::openDescriptors();
    for (int i = 0; i < 50; ++i) {
        peer.send(bytes("94 00 09 a4 'ask:'"));
        std::this_thread::sleep_for(1ms);
        peer.send(bytes("90"));
        EXPECT_EQ(peer.receive(5), bytes("94 01 09 c0 a0"));
    }
    peer.send(bytes("94 00 09 a4 'ask:' 91 01"));
    EXPECT_EQ(peer.receive(1000009).size(), 1000009U);
    EXPECT_EQ(test::openDescriptors(), descriptors);
}

TEST_F(ConnectionTest, DescriptorsPassBothWaysAndNeverStay) {
    Ends ends = makeEnds();
    std::vector<Value> kept;
    exportAndResume(*ends.connection, [&](Connection&, std::string_view, Array params) {
        kept.insert(kept.end(), params.begin(), params.end());
        return CallResult{Value(std::move(params)), {}};
    });
    const UniqueFd null(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    const std::vector<int> two{null.get(), ends.peer.fd()};
    const std::string holder = bytes("94 00 09 a4 'ask:' 92 d4 01 01 d4 01 00");
    // Both messages are there before the first read; each has descriptors of its own.
    ends.peer.send(bytes("93 02 a5 'tell:' 90") + holder, two);
    ends.peer.send(holder, two);
    std::vector<UniqueFd> returned;
    std::array<char, 11> room{};
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(receive(ends.peer.fd(), room, Waiting::yes, returned).size, 11);
        EXPECT_EQ(std::string_view(room.data(), room.size()),
                  bytes("94 01 09 c0 92 d4 01 00 d4 01 01"));
    }
    EXPECT_EQ(returned.size(), 4U);
    ASSERT_EQ(kept.size(), 4U);
    for (const Value& each : kept) {
        ASSERT_NE(each.endpoint(), nullptr);
        EXPECT_EQ(::fcntl(each.endpoint()->descriptor->get(), F_GETFD), FD_CLOEXEC);
    }
    kept.clear();
    // More than a message may have, also more than the kernel lets through at once.
    for (const std::size_t count : {5, 100}) {
        Ends other = makeEnds();
        exportAndResume(*other.connection, echo);
        other.peer.send(bytes("94 00 09 a4 'ask:' 90"), std::vector<int>(count, null.get()));
        EXPECT_TRUE(other.peer.closedWithin(10s));
    }
}

}  // namespace
}  // namespace corvalen
