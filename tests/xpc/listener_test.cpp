// SPDX-License-Identifier: MIT
#include "xpc/listener.hpp"

#include <malloc.h>
#include <sys/ioctl.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <linux/sockios.h>
#include <atomic>

#include "xpc/support.hpp"

namespace corvalen {
namespace {

using namespace std::chrono_literals;
using test::bytes;
using test::echo;
using test::eventually;
using test::RawPeer;

/// Accepts everybody and answers by a handler.
class TestDelegate : public ListenerDelegate {
  public:
    explicit TestDelegate(test::MessageHandler handler = echo)
        : _object(std::make_shared<test::TestObject>(std::move(handler))) {}

    bool listenerShouldAcceptNewConnection(Listener&,
                                           const std::shared_ptr<Connection>& connection) override {
        user = connection->peer().uid;
        ++offered;
        if (throwing) throw std::bad_alloc();
        if (!accepting) return false;
        connection->setExportedInterface(test::kTestInterface, _object);
        // Connections may end after the test, so they share the count.
        connection->setInvalidationHandler([count = ended] { ++*count; });
        connection->resume();
        return true;
    }

    std::atomic<bool> accepting = true;
    std::atomic<bool> throwing = false;
    std::atomic<int> offered = 0;
    std::shared_ptr<std::atomic<int>> ended = std::make_shared<std::atomic<int>>(0);
    std::atomic<uid_t> user = 0;

  private:
    std::shared_ptr<ExportedObject> _object;
};

class ListenerTest : public test::NothingLeftBehind {
  protected:
    ListenerTest() {
        std::string pattern = ::testing::TempDir() + "xpcXXXXXX";
        _folder = ::mkdtemp(pattern.data());
        std::filesystem::permissions(_folder, std::filesystem::perms(0755));
    }
    ~ListenerTest() override { std::filesystem::remove_all(_folder); }

    [[nodiscard]] std::string path() const { return _folder + "/socket"; }
    [[nodiscard]] sockaddr_un address() const {
        sockaddr_un result{};
        result.sun_family = AF_UNIX;
        path().copy(result.sun_path, sizeof result.sun_path - 1);
        return result;
    }
    [[nodiscard]] std::unique_ptr<Listener> listenAtPath(ListenerDelegate& delegate) const {
        UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_un name = address();
        ::unlink(name.sun_path);
        EXPECT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name), 0);
        EXPECT_EQ(::chmod(name.sun_path, 0666), 0);
        EXPECT_EQ(::listen(socket.get(), 4096), 0);
        return resumed(Listener::listenerAtSocket(std::move(socket)), delegate);
    }
    static std::unique_ptr<Listener> resumed(std::unique_ptr<Listener> listener,
                                             ListenerDelegate& delegate) {
        listener->setDelegate(&delegate);
        listener->resume();
        return listener;
    }
    [[nodiscard]] RawPeer connectRaw() const {
        UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_un name = address();
        EXPECT_EQ(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name),
                  0);
        return RawPeer(std::move(socket));
    }
    static bool answers(const RawPeer& peer) {
        peer.send(bytes("94 00 09 a4 'ask:' 90"));
        return peer.receive(5) == bytes("94 01 09 c0 90");
    }
    /// Whether a listener takes a connection that is offered over this endpoint.
    static bool reachable(const EndpointRef& endpoint) {
        const auto connection = Connection::connectionToEndpoint(endpoint);
        return connection->remoteObjectProxy().call("ask:", {1}) == Value(Array{1});
    }

  private:
    std::string _folder;
};

ErrorRef firstError(const EndpointRef& endpoint) {
    ErrorRef result;
    const auto connection = Connection::connectionToEndpoint(endpoint);
    connection->setSendTimeout(200ms);
    connection->resume();
    connection->remoteObjectProxyWithErrorHandler([&](ErrorRef error) { result = error; })
        .notify("tell:", {});
    return result;
}

EndpointRef endpointOf(int descriptor) {
    return {std::make_shared<const UniqueFd>(descriptor)};
}

TEST_F(ListenerTest, ServesThoseWhoComeWhileItIsResumed) {
    TestDelegate delegate;
    const auto listener = listenAtPath(delegate);
    const auto connection = Connection::connectionToServiceAtPath(path());
    ASSERT_NE(connection, nullptr);
    EXPECT_EQ(connection->peer().pid, ::getpid());
    EXPECT_EQ(connection->remoteObjectProxy().call("ask:", {1}), Value(Array{1}));
    listener->suspend();
    const RawPeer waiting = connectRaw();
    waiting.send(bytes("94 00 09 a4 'ask:' 90"));
    EXPECT_FALSE(waiting.readable(50ms));
    listener->resume();
    EXPECT_EQ(waiting.receive(5), bytes("94 01 09 c0 90"));
    // A malformed client costs the others nothing.
    for (const char* garbage : {"c1", "94 00 01 db ff ff ff ff", "'GET / HTTP/1.1'"}) {
        const RawPeer bad = connectRaw();
        bad.send(bytes(garbage));
        EXPECT_TRUE(bad.closedWithin(10s));
        EXPECT_TRUE(answers(waiting));
    }
    delegate.accepting = false;
    EXPECT_TRUE(connectRaw().closedWithin(10s));
    delegate.throwing = true;
    EXPECT_TRUE(connectRaw().closedWithin(10s));
    // Accepted connections outlive the listener; new ones find nobody.
    listener->invalidate();
    ErrorRef error;
    EXPECT_EQ(Connection::connectionToServiceAtPath(path(), &error), nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), cocoa::kConnectionInvalid);
    EXPECT_EQ(*error->underlyingError(), *makePosixError(ECONNREFUSED));
    EXPECT_EQ(connection->remoteObjectProxy().call("ask:", {2}), Value(Array{2}));
}

TEST_F(ListenerTest, AUserOtherThanRootHasAtMost64Connections) {
    if (::geteuid() != 0) GTEST_SKIP() << "must be root to speak as two users";
    TestDelegate delegate;
    const auto listener = listenAtPath(delegate);
    std::vector<RawPeer> peers;
    {
        const test::ScopedNobody nobody;
        for (std::size_t i = 0; i < 64U; ++i) {
            peers.push_back(connectRaw());
            ASSERT_TRUE(answers(peers.back()));
        }
        EXPECT_EQ(delegate.user, test::ScopedNobody::kUser);
        EXPECT_TRUE(connectRaw().closedWithin(10s));
        peers.pop_back();
        EXPECT_TRUE(eventually([&] { return answers(connectRaw()); }));
    }
    for (std::size_t i = 0; i <= 64U; ++i) {
        peers.push_back(connectRaw());
        ASSERT_TRUE(answers(peers.back()));
    }
}

TEST_F(ListenerTest, AUserOtherThanRootHoldsAtMost64MiBOfUnfinishedMessages) {
    if (::geteuid() != 0) GTEST_SKIP() << "must be root to speak as another user";
    TestDelegate delegate;
    const auto listener = listenAtPath(delegate);
    constexpr std::size_t kEach = 16 * 1024 * 1024 - 4096;
    const std::string header = bytes("94 00 09 a4 'ask:' 91 db 00 ff ff 00");
    std::vector<RawPeer> peers;
    {
        const test::ScopedNobody nobody;
        for (int i = 0; i < 5; ++i)
            peers.push_back(connectRaw());
    }
    const auto arrived = [&](std::size_t peer) {
        return eventually([&] {
            int waiting = 1;
            ::ioctl(peers[peer].fd(), SIOCOUTQ, &waiting);
            return waiting == 0;
        });
    };
    for (std::size_t i = 0; i < 4; ++i) {
        peers[i].send(header + std::string(kEach - header.size(), 'x'));
        ASSERT_TRUE(arrived(i));
    }
    peers[4].send(header + std::string(4 * 4096 - header.size(), 'x'));
    ASSERT_TRUE(arrived(4));
    EXPECT_FALSE(peers[4].closedWithin(50ms));
    peers[4].send("x");
    EXPECT_TRUE(peers[4].closedWithin(10s));
    EXPECT_FALSE(peers[0].closedWithin(10ms));
    // What was given back can be used again.
    peers[3].send(std::string(header.size() + 0xffff00 - kEach, 'x'));
    EXPECT_EQ(peers[3].receive(5), bytes("94 01 09 c0 91"));
}

TEST_F(ListenerTest, EndpointsReachTheirListener) {
    TestDelegate first;
    TestDelegate second;
    const auto firstListener = resumed(Listener::anonymousListener(), first);
    const auto secondListener = resumed(Listener::anonymousListener(), second);
    const EndpointRef endpoint = firstListener->endpoint();
    EXPECT_TRUE(reachable(endpoint));
    EXPECT_TRUE(reachable(endpoint));
    EXPECT_TRUE(reachable(firstListener->endpoint()));
    EXPECT_TRUE(reachable(secondListener->endpoint()));
    EXPECT_EQ(first.offered, 3);
    EXPECT_EQ(second.offered, 1);
    // A connection whose owner only sends has no thread.
    const std::ptrdiff_t threads = test::runningThreads();
    const auto sender = Connection::connectionToEndpoint(endpoint);
    sender->resume();
    sender->remoteObjectProxy().notify("tell:", {});
    EXPECT_TRUE(eventually([&] { return first.offered == 4; }));
    EXPECT_LE(test::runningThreads(), threads + 1);
    firstListener->invalidate();
    EXPECT_EQ(firstListener->endpoint().descriptor, nullptr);
    EXPECT_NE(firstError(endpoint), nullptr);
}

TEST_F(ListenerTest, WhatIsNoEndpointIsLearntAtTheFirstMessage) {
    TestDelegate delegate;
    const auto listener = listenAtPath(delegate);
    const int listening = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    const sa_family_t unnamed = AF_UNIX;
    ASSERT_EQ(::bind(listening, reinterpret_cast<const sockaddr*>(&unnamed), sizeof unnamed) +
                  ::listen(listening, 1),
              0);
    const std::vector<EndpointRef> cases = {
        {},
        endpointOf(::open("/dev/null", O_RDWR | O_CLOEXEC)),
        endpointOf(::open("/", O_PATH | O_CLOEXEC)),
        endpointOf(makeSocketPair(SOCK_STREAM).first.release()),
        endpointOf(makeSocketPair(SOCK_DGRAM).first.release()),
        endpointOf(makeSocketPair(SOCK_SEQPACKET).first.release()),
        endpointOf(::dup(connectRaw().fd())),
        endpointOf(listening),
    };
    for (const EndpointRef& endpoint : cases) {
        const ErrorRef error = firstError(endpoint);
        ASSERT_NE(error, nullptr) << "case " << &endpoint - cases.data();
        EXPECT_EQ(error->code(), cocoa::kConnectionInvalid);
    }
}

TEST_F(ListenerTest, AnEndpointWhoseQueueIsFullHoldsNobodyForEver) {
    SocketPair packets = makeSocketPair(SOCK_SEQPACKET);
    const EndpointRef endpoint{std::make_shared<const UniqueFd>(std::move(packets.first))};
    std::vector<std::shared_ptr<Connection>> opened;
    ErrorRef error;
    for (int i = 0; i < 2000 && !error; ++i) {
        opened.push_back(Connection::connectionToEndpoint(endpoint));
        opened.back()->setSendTimeout(200ms);
        opened.back()
            ->remoteObjectProxyWithErrorHandler([&](ErrorRef failure) { error = failure; })
            .notify("tell:", {});
    }
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(*error->underlyingError(), *makePosixError(ETIMEDOUT));
    // One that finds no room is opened, late, as soon as there is some.
    const auto late = Connection::connectionToEndpoint(endpoint);
    std::vector<UniqueFd> taken;
    char byte = 1;
    while (receive(packets.second.get(), {&byte, 1}, Waiting::no, taken).size > 0)
        continue;
    late->remoteObjectProxy().notify("tell:", {});
    taken.clear();
    EXPECT_EQ(receive(packets.second.get(), {&byte, 1}, Waiting::no, taken).size, 1);
    ASSERT_EQ(taken.size(), 1U);
    EXPECT_EQ(RawPeer(std::move(taken[0])).receive(9), bytes("93 02 a5 'tell:' 90"));
}

TEST_F(ListenerTest, WhatIsNoConnectionIsClosedAndTheEndpointGoesOn) {
    TestDelegate delegate;
    const auto listener = resumed(Listener::anonymousListener(), delegate);
    const EndpointRef endpoint = listener->endpoint();
    const RawPeer raw(UniqueFd(::dup(endpoint.descriptor->get())));
    const std::string zero(1, '\0');
    const std::ptrdiff_t descriptors = test::openDescriptors();
    for (int round = 0; round < 20; ++round) {
        const SocketPair streams = makeSocketPair(SOCK_STREAM);
        const SocketPair packets = makeSocketPair(SOCK_SEQPACKET);
        const UniqueFd null(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        const UniqueFd unconnected(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const int half = streams.second.get();
        raw.send(zero);
        raw.send("xx");
        raw.send("x", {half});
        raw.send(zero + zero, {half});
        raw.send(zero, {half, half});
        raw.send(zero, std::vector<int>(100, half));
        raw.send(zero, {null.get()});
        raw.send(zero, {packets.first.get()});
        raw.send(zero, {unconnected.get()});
        (void)::send(raw.fd(), "", 0, MSG_NOSIGNAL);
    }
    EXPECT_TRUE(reachable(endpoint));
    EXPECT_EQ(delegate.offered, 1);
    EXPECT_TRUE(eventually([&] { return test::openDescriptors() <= descriptors; }));
}

TEST_F(ListenerTest, AHalfIsTakenOnlyFromTheProcessThatMadeIt) {
    if (::geteuid() != 0) GTEST_SKIP() << "must be root to speak as two users";
    TestDelegate delegate;
    const auto service = listenAtPath(delegate);
    const auto anonymous = resumed(Listener::anonymousListener(), delegate);
    const std::string zero(1, '\0');
    // Made by one user, offered by another: the maker's identity would be taken for the offerer's.
    const SocketPair ofRoot = makeSocketPair(SOCK_STREAM);
    const EndpointRef endpoint = anonymous->endpoint();
    {
        const test::ScopedNobody nobody;
        RawPeer(UniqueFd(::dup(endpoint.descriptor->get()))).send(zero, {ofRoot.second.get()});
    }
    EXPECT_TRUE(reachable(endpoint));
    EXPECT_EQ(delegate.offered, 1);
    // A half of our own that comes back to the service, which serves others.
    EXPECT_FALSE(reachable(service->endpoint()));
    EXPECT_EQ(delegate.offered, 1);
    // Another process is served; it knows only the protocol.
    const EndpointRef given = service->endpoint();
    const int there = given.descriptor->get();
    const pid_t child = ::fork();
    if (child == 0) {
        int halves[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, halves) != 0) ::_exit(1);
        RawPeer(UniqueFd(::dup(there))).send(zero, {halves[1]});
        ::close(halves[1]);
        ::_exit(answers(RawPeer(UniqueFd(halves[0]))) ? 0 : 2);
    }
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(ListenerTest, EndpointsEndWithTheirHoldersAndCountAgainstTheirOwner) {
    TestDelegate delegate;
    const auto listener = resumed(Listener::anonymousListener(), delegate);
    const std::ptrdiff_t descriptors = test::openDescriptors();
    PeerIdentity owner;
    owner.uid = 1000;
    std::vector<EndpointRef> held;
    for (std::size_t i = 0; i < 64U; ++i) {
        held.push_back(listener->endpoint(&owner));
        ASSERT_NE(held.back().descriptor, nullptr);
    }
    EXPECT_EQ(listener->endpoint(&owner).descriptor, nullptr);
    PeerIdentity another;
    another.uid = 1001;
    EXPECT_NE(listener->endpoint(&another).descriptor, nullptr);
    held.pop_back();
    EXPECT_TRUE(eventually([&] { return listener->endpoint(&owner).descriptor != nullptr; }));
    held.clear();
    EXPECT_TRUE(eventually([&] { return test::openDescriptors() == descriptors; }));
}

TEST_F(ListenerTest, NothingIsLeftOfTenThousandConnections) {
    TestDelegate delegate;
    const auto listener = listenAtPath(delegate);
    const auto anonymous = resumed(Listener::anonymousListener(), delegate);
    const EndpointRef endpoint = anonymous->endpoint();
    constexpr int kConnections = 10000;
    const std::ptrdiff_t threads = test::runningThreads();
    int done = 0;
    const auto run = [&](int count) {
        for (int i = 0; i < count; ++i, ++done) {
            const auto connection = i % 10 == 0 ? Connection::connectionToEndpoint(endpoint)
                                                : Connection::connectionToServiceAtPath(path());
            ASSERT_NE(connection, nullptr);
            if (i % 3 == 0) connection->resume();
            if (i % 7 == 0) continue;
            ASSERT_EQ(connection->remoteObjectProxy().call("ask:", {i}), Value(Array{i}));
        }
        // A connection that was closed at once may not have been offered yet.
        ASSERT_TRUE(
            eventually([&] { return delegate.offered == done && *delegate.ended == done; }));
    };
    run(200);
    ASSERT_TRUE(eventually([&] { return test::runningThreads() <= threads; }));
    const std::ptrdiff_t descriptors = test::openDescriptors();
    const auto memory = static_cast<std::ptrdiff_t>(::mallinfo2().uordblks);
    run(kConnections - 200);
    EXPECT_TRUE(eventually([&] {
        return test::openDescriptors() == descriptors && test::runningThreads() <= threads;
    }));
    EXPECT_LT(static_cast<std::ptrdiff_t>(::mallinfo2().uordblks), memory + 64 * 1024);
}

}  // namespace
}  // namespace corvalen
