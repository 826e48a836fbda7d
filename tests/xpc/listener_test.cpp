// SPDX-License-Identifier: MIT
#include "xpc/listener.hpp"

#include <atomic>

#include "support/child.hpp"
#include "support/scratch_folder.hpp"
#include "support/unix_socket.hpp"
#include "xpc/support.hpp"

namespace corvalen {
namespace {

using namespace test;

/// Accepts and echoes.
struct TestDelegate : ListenerDelegate {
    bool listenerShouldAcceptNewConnection(Listener&,
                                           const std::shared_ptr<Connection>& connection) override {
        ++offered;
        if (throwing) throw std::bad_alloc();
        if (!accepting) return false;
        exportAndResume(*connection, echo);
        return true;
    }
    std::atomic<bool> accepting = true;
    std::atomic<bool> throwing = false;
    std::atomic<int> offered = 0;
};

class ListenerTest : public NothingLeftBehind {
  protected:
    [[nodiscard]] std::string path() const { return _folder.path("socket"); }
    static std::unique_ptr<Listener> resumed(std::unique_ptr<Listener> listener,
                                             ListenerDelegate& delegate) {
        listener->setDelegate(&delegate);
        listener->resume();
        return listener;
    }
    [[nodiscard]] std::unique_ptr<Listener> listenAtPath(ListenerDelegate& delegate) const {
        UniqueFd socket = boundSocket(path(), SOCK_STREAM);
        EXPECT_EQ(::chmod(path().c_str(), 0666), 0);
        EXPECT_EQ(::listen(socket.get(), 4096), 0);
        return resumed(Listener::listenerAtSocket(std::move(socket)), delegate);
    }
    [[nodiscard]] RawPeer connectRaw() const { return RawPeer(connectedSocket(path())); }
    static bool answers(const RawPeer& peer) {
        peer.send(kAsk);
        return peer.receive(5) == kEcho;
    }
    /// Whether a listener accepts a connection over this endpoint.
    static bool reachable(const EndpointRef& endpoint) {
        const auto connection = Connection::connectionToEndpoint(endpoint);
        return connection->remoteObjectProxy().call("ask:", {1}) == Value(Array{1});
    }

  private:
    const ScratchFolder _folder;
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

/// Waits until the other half is closed in threads with their own descriptor tables, too.
EndpointRef endpointOfNobody(int type) {
    SocketPair pair = makeSocketPair(type);
    pair.second.reset();
    pollfd event{pair.first.get(), 0, 0};
    EXPECT_TRUE(test::eventually(
        [&] { return ::poll(&event, 1, 0) == 1 && (event.revents & POLLHUP) != 0; }));
    return endpointOf(std::move(pair.first));
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
    // A malformed message does not affect other clients.
    const RawPeer bad = connectRaw();
    bad.send("GET / HTTP/1.1");
    EXPECT_TRUE(bad.closedWithin());
    EXPECT_TRUE(answers(waiting));
    delegate.accepting = false;
    EXPECT_TRUE(connectRaw().closedWithin());
    delegate.throwing = true;
    EXPECT_TRUE(connectRaw().closedWithin());
    // Accepted connections outlive the listener; new ones are soon refused.
    listener->invalidate();
    ErrorRef error;
    EXPECT_TRUE(eventually(
        [&] { return Connection::connectionToServiceAtPath(path(), &error) == nullptr; }));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), cocoa::kConnectionInvalid);
    EXPECT_EQ(*error->underlyingError(), *makePosixError(ECONNREFUSED));
    EXPECT_EQ(connection->remoteObjectProxy().call("ask:", {2}), Value(Array{2}));
}

TEST_F(ListenerTest, EndpointsReachTheirListener) {
    TestDelegate first, second;
    const auto firstListener = resumed(Listener::anonymousListener(), first);
    const auto secondListener = resumed(Listener::anonymousListener(), second);
    const EndpointRef endpoint = firstListener->endpoint();
    EXPECT_TRUE(reachable(endpoint));
    EXPECT_TRUE(reachable(endpoint));
    EXPECT_TRUE(reachable(secondListener->endpoint()));
    EXPECT_EQ(first.offered, 2);
    EXPECT_EQ(second.offered, 1);
    firstListener->invalidate();
    EXPECT_EQ(firstListener->endpoint().descriptor, nullptr);
    const std::vector<EndpointRef> unreachable = {
        endpoint,
        {},
        endpointOf(UniqueFd(::open("/", O_PATH | O_CLOEXEC))),
        endpointOfNobody(SOCK_STREAM),
        endpointOfNobody(SOCK_SEQPACKET),
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
    for (int i = 0; i < 2000 && !error; ++i)
        error = firstError(endpoint);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(*error->underlyingError(), *makePosixError(ETIMEDOUT));
    // A connection that found the queue full is opened as soon as there is space.
    const auto late = Connection::connectionToEndpoint(endpoint);
    std::vector<UniqueFd> taken;
    char byte = 1;
    while (receive(packets.second.get(), {&byte, 1}, taken).size > 0)
        taken.clear();
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
        raw.send(zero, {UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)).get()});
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
    // A socket pair of one user, offered by another, would carry the first user's identity.
    const SocketPair ofRoot = makeSocketPair(SOCK_STREAM);
    const EndpointRef endpoint = anonymous->endpoint();
    const RawPeer raw(UniqueFd(::dup(endpoint.descriptor->get())));
    {
        const ScopedNobody nobody;
        raw.send(zero, {ofRoot.second.get()});
    }
    EXPECT_TRUE(reachable(endpoint));
    EXPECT_EQ(delegate.offered, 1);
    // The service refuses a socket pair of its own process.
    EXPECT_FALSE(reachable(service->endpoint()));
    EXPECT_EQ(delegate.offered, 1);
    // Another process, which uses only the protocol, is served.
    const EndpointRef given = service->endpoint();
    Child other(0, [&] {
        SocketPair pair = makeSocketPair(SOCK_STREAM);
        RawPeer(UniqueFd(::dup(given.descriptor->get()))).send(zero, {pair.second.get()});
        pair.second.reset();
        return answers(RawPeer(std::move(pair.first)));
    });
    EXPECT_EQ(other.wait(), 0);
}

TEST_F(ListenerTest, EndpointsEndWithTheirHoldersAndCountAgainstTheirOwner) {
    TestDelegate delegate;
    const auto listener = resumed(Listener::anonymousListener(), delegate);
    const std::ptrdiff_t descriptors = openDescriptors();
    const PeerIdentity owner{1, 1000, 1000, 0, nullptr}, another{2, 1001, 1001, 0, nullptr};
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

}  // namespace
}  // namespace corvalen
