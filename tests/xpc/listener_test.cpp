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

using namespace test;

/// Accepts and echoes.
struct TestDelegate : ListenerDelegate {
    bool listenerShouldAcceptNewConnection(Listener&,
                                           const std::shared_ptr<Connection>& connection) override {
        user = connection->peer().uid;
        ++offered;
        if (throwing) throw std::bad_alloc();
        if (!accepting) return false;
        // Connections may end after the test, so they share the count.
        connection->setInvalidationHandler([count = ended] { ++*count; });
        exportAndResume(*connection, echo);
        return true;
    }
    std::atomic<bool> accepting = true;
    std::atomic<bool> throwing = false;
    std::atomic<int> offered = 0;
    std::shared_ptr<std::atomic<int>> ended = std::make_shared<std::atomic<int>>(0);
    std::atomic<uid_t> user = 0;
};

class ListenerTest : public NothingLeftBehind {
  protected:
    ListenerTest() {
        std::string pattern = ::testing::TempDir() + "xpcXXXXXX";
        _folder = ::mkdtemp(pattern.data());
        std::filesystem::permissions(_folder, std::filesystem::perms(0755));
        _address.sun_family = AF_UNIX;
        path().copy(_address.sun_path, sizeof _address.sun_path - 1);
    }
    ~ListenerTest() override { std::filesystem::remove_all(_folder); }

    [[nodiscard]] std::string path() const { return _folder + "/socket"; }
    static UniqueFd streamSocket() {
        return UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    }
    static std::unique_ptr<Listener> resumed(std::unique_ptr<Listener> listener,
                                             ListenerDelegate& delegate) {
        listener->setDelegate(&delegate);
        listener->resume();
        return listener;
    }
    [[nodiscard]] std::unique_ptr<Listener> listenAtPath(ListenerDelegate& delegate) const {
        UniqueFd socket = streamSocket();
        EXPECT_EQ(::bind(socket.get(), generic(), sizeof _address), 0);
        EXPECT_EQ(::chmod(path().c_str(), 0666), 0);
        EXPECT_EQ(::listen(socket.get(), 4096), 0);
        return resumed(Listener::listenerAtSocket(std::move(socket)), delegate);
    }
    [[nodiscard]] RawPeer connectRaw() const {
        UniqueFd socket = streamSocket();
        EXPECT_EQ(::connect(socket.get(), generic(), sizeof _address), 0);
        return RawPeer(std::move(socket));
    }
    static bool answers(const RawPeer& peer) {
        peer.send(kAsk);
        return peer.receive(5) == kEcho;
    }
    /// Whether a listener takes a connection that is offered over this endpoint.
    static bool reachable(const EndpointRef& endpoint) {
        const auto connection = Connection::connectionToEndpoint(endpoint);
        return connection->remoteObjectProxy().call("ask:", {1}) == Value(Array{1});
    }

  private:
    [[nodiscard]] const sockaddr* generic() const {
        return reinterpret_cast<const sockaddr*>(&_address);
    }
    std::string _folder;
    sockaddr_un _address{};
};

/// The error of the first message over a connection to this endpoint.
ErrorRef firstError(const EndpointRef& endpoint) {
    ErrorRef result;
    const auto connection = Connection::connectionToEndpoint(endpoint);
    connection->setSendTimeout(200ms);
    connection->remoteObjectProxyWithErrorHandler([&](const ErrorRef& error) { result = error; })
        .notify("tell:", {});
    return result;
}

EndpointRef endpointOf(UniqueFd descriptor) {
    return {std::make_shared<const UniqueFd>(std::move(descriptor))};
}

TEST_F(ListenerTest, ServesThoseWhoComeWhileItIsResumed) {
    TestDelegate delegate;
    const auto listener = listenAtPath(delegate);
    const auto connection = Connection::connectionToServiceAtPath(path());
    ASSERT_NE(connection, nullptr);
    EXPECT_EQ(connection->peer().pid, ::getpid());
    listener->suspend();
    const RawPeer waiting = connectRaw();
    waiting.send(kAsk);
    EXPECT_FALSE(waiting.readable(50ms));
    listener->resume();
    EXPECT_EQ(waiting.receive(5), kEcho);
    // A malformed client costs the others nothing.
    const RawPeer bad = connectRaw();
    bad.send("GET / HTTP/1.1");
    EXPECT_TRUE(bad.closedWithin(10s));
    EXPECT_TRUE(answers(waiting));
    delegate.accepting = false;
    EXPECT_TRUE(connectRaw().closedWithin(10s));
    delegate.throwing = true;
    EXPECT_TRUE(connectRaw().closedWithin(10s));
    // Accepted connections go on without the listener; new ones find nobody.
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
    const auto add = [&] { return answers(peers.emplace_back(connectRaw())); };
    {
        const ScopedNobody nobody;
        for (int i = 0; i < 64; ++i) {
            ASSERT_TRUE(add());
        }
        EXPECT_EQ(delegate.user, ScopedNobody::kUser);
        EXPECT_TRUE(connectRaw().closedWithin(10s));
        peers.pop_back();
        EXPECT_TRUE(eventually([&] { return answers(connectRaw()); }));
    }
    for (int i = 0; i < 65; ++i) {
        ASSERT_TRUE(add());
    }
}

TEST_F(ListenerTest, AUserOtherThanRootHoldsAtMost64MiBOfUnfinishedMessages) {
    if (::geteuid() != 0) GTEST_SKIP() << "must be root to speak as another user";
    TestDelegate delegate;
    const auto listener = listenAtPath(delegate);
    std::vector<RawPeer> peers;
    // Sends bytes and waits until they have been taken.
    const auto put = [&](std::size_t peer, const std::string& data) {
        peers[peer].send(data);
        return eventually([&] {
            int waiting = 1;
            ::ioctl(peers[peer].fd(), SIOCOUTQ, &waiting);
            return waiting == 0;
        });
    };
    {
        const ScopedNobody nobody;
        for (int i = 0; i < 5; ++i) {
            peers.push_back(connectRaw());
        }
    }
    const std::string begun = bytes("94 00 09 a4 'ask:' 91 db 00 ff ff 00");
    constexpr std::size_t kEach = 16 * kMiB - 4096;
    for (std::size_t i = 0; i < 4; ++i) {
        ASSERT_TRUE(put(i, begun + std::string(kEach - begun.size(), 'x')));
    }
    ASSERT_TRUE(put(4, begun + std::string(std::size_t{4} * 4096 - begun.size(), 'x')));
    EXPECT_FALSE(peers[4].closedWithin(50ms));
    put(4, "x");
    EXPECT_TRUE(peers[4].closedWithin(10s));
    // The others go on, with what was given back.
    put(3, std::string(begun.size() + 0xffff00 - kEach, 'x'));
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
    firstListener->invalidate();
    EXPECT_EQ(firstListener->endpoint().descriptor, nullptr);
    const std::vector<EndpointRef> unreachable = {
        endpoint,
        {},
        endpointOf(UniqueFd(::open("/dev/null", O_RDWR | O_CLOEXEC))),
        endpointOf(UniqueFd(::open("/", O_PATH | O_CLOEXEC))),
        endpointOf(makeSocketPair(SOCK_STREAM).first),
        endpointOf(makeSocketPair(SOCK_DGRAM).first),
        endpointOf(makeSocketPair(SOCK_SEQPACKET).first),
        endpointOf(streamSocket()),
    };
    for (const EndpointRef& each : unreachable) {
        const ErrorRef error = firstError(each);
        ASSERT_NE(error, nullptr) << "case " << &each - unreachable.data();
        EXPECT_EQ(error->code(), cocoa::kConnectionInvalid);
    }
}

TEST_F(ListenerTest, AnEndpointWhoseQueueIsFullHoldsNobodyForEver) {
    SocketPair packets = makeSocketPair(SOCK_SEQPACKET);
    const EndpointRef endpoint = endpointOf(std::move(packets.first));
    ErrorRef error;
    for (int i = 0; i < 2000 && !error; ++i) {
        error = firstError(endpoint);
    }
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(*error->underlyingError(), *makePosixError(ETIMEDOUT));
    // One that finds no room is opened, late, as soon as there is some.
    const auto late = Connection::connectionToEndpoint(endpoint);
    std::vector<UniqueFd> taken;
    char byte = 1;
    while (receive(packets.second.get(), {&byte, 1}, taken).size > 0) {
        taken.clear();
    }
    late->remoteObjectProxy().notify("tell:", {});
    EXPECT_EQ(receive(packets.second.get(), {&byte, 1}, taken).size, 1);
    ASSERT_EQ(taken.size(), 1U);
    EXPECT_EQ(RawPeer(std::move(taken[0])).receive(kTell.size()), kTell);
}

TEST_F(ListenerTest, WhatIsNoConnectionIsClosedAndTheEndpointGoesOn) {
    TestDelegate delegate;
    const auto listener = resumed(Listener::anonymousListener(), delegate);
    const EndpointRef endpoint = listener->endpoint();
    const RawPeer raw(UniqueFd(::dup(endpoint.descriptor->get())));
    const std::string zero(1, '\0');
    const std::ptrdiff_t descriptors = openDescriptors();
    for (int round = 0; round < 20; ++round) {
        const SocketPair streams = makeSocketPair(SOCK_STREAM);
        const SocketPair packets = makeSocketPair(SOCK_SEQPACKET);
        const UniqueFd null(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        const int half = streams.second.get();
        raw.send(zero);
        raw.send("x", {half});
        raw.send(zero + zero, {half});
        raw.send(zero, {half, half});
        raw.send(zero, std::vector<int>(100, half));
        raw.send(zero, {null.get()});
        raw.send(zero, {packets.first.get()});
        raw.send(zero, {streamSocket().get()});
        (void)::send(raw.fd(), "", 0, MSG_NOSIGNAL);
    }
    EXPECT_TRUE(reachable(endpoint));
    EXPECT_EQ(delegate.offered, 1);
    EXPECT_TRUE(eventually([&] { return openDescriptors() <= descriptors; }));
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
    const RawPeer raw(UniqueFd(::dup(endpoint.descriptor->get())));
    {
        const ScopedNobody nobody;
        raw.send(zero, {ofRoot.second.get()});
    }
    EXPECT_TRUE(reachable(endpoint));
    EXPECT_EQ(delegate.offered, 1);
    // A half of our own that comes back to the service, which serves others.
    EXPECT_FALSE(reachable(service->endpoint()));
    EXPECT_EQ(delegate.offered, 1);
    // Another process is served; it knows only the protocol.
    const EndpointRef given = service->endpoint();
    const pid_t child = ::fork();
    if (child == 0) {
        SocketPair pair = makeSocketPair(SOCK_STREAM);
        RawPeer(UniqueFd(::dup(given.descriptor->get()))).send(zero, {pair.second.get()});
        pair.second.reset();
        ::_exit(answers(RawPeer(std::move(pair.first))) ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(ListenerTest, EndpointsEndWithTheirHoldersAndCountAgainstTheirOwner) {
    TestDelegate delegate;
    const auto listener = resumed(Listener::anonymousListener(), delegate);
    const std::ptrdiff_t descriptors = openDescriptors();
    PeerIdentity owner;
    owner.uid = 1000;
    PeerIdentity another;
    another.uid = 1001;
    std::vector<EndpointRef> held;
    for (int i = 0; i < 64; ++i) {
        ASSERT_NE(held.emplace_back(listener->endpoint(&owner)).descriptor, nullptr);
    }
    EXPECT_EQ(listener->endpoint(&owner).descriptor, nullptr);
    EXPECT_NE(listener->endpoint(&another).descriptor, nullptr);
    held.pop_back();
    EXPECT_TRUE(eventually([&] { return listener->endpoint(&owner).descriptor != nullptr; }));
    held.clear();
    EXPECT_TRUE(eventually([&] { return openDescriptors() == descriptors; }));
}

TEST_F(ListenerTest, NothingIsLeftOfTenThousandConnections) {
    TestDelegate delegate;
    const auto listener = listenAtPath(delegate);
    const auto anonymous = resumed(Listener::anonymousListener(), delegate);
    const EndpointRef endpoint = anonymous->endpoint();
    const std::ptrdiff_t threads = runningThreads();
    const std::ptrdiff_t descriptors = openDescriptors();
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
        EXPECT_TRUE(eventually([&] {
            return *delegate.ended == done && openDescriptors() == descriptors &&
                   runningThreads() == threads;
        }));
    };
    run(200);
    const auto memory = ::mallinfo2().uordblks;
    run(9800);
    EXPECT_LT(::mallinfo2().uordblks, memory + kMiB / 16);
}

}  // namespace
}  // namespace corvalen
