// SPDX-License-Identifier: MIT
#include "xpc/listener.hpp"

#include <sys/syscall.h>

#include <atomic>

#include "support/child.hpp"
#include "support/scratch_folder.hpp"
#include "support/unix_socket.hpp"
#include "xpc/limits.hpp"
#include "xpc/support.hpp"

namespace corvalen {
namespace {

using namespace test;

/// A listener whose connections echo.
struct Server : ListenerDelegate {
    explicit Server(std::unique_ptr<Listener> by = Listener::anonymousListener())
        : listener(std::move(by)) {
        listener->setDelegate(this);
        listener->resume();
    }
    bool listenerShouldAcceptNewConnection(Listener&,
                                           const std::shared_ptr<Connection>& connection) override {
        ++offered;
        if (throwing) throw std::bad_alloc();
        if (!accepting) return false;
        exportAndResume(*connection, [this](Connection& self, Array params) {
            if (listener->hasBusyConnection()) ++busy;
            ++answered;
            return echo(self, std::move(params));
        });
        return true;
    }
    std::atomic<bool> accepting = true;
    std::atomic<bool> throwing = false;
    /// Requests that a listener of a service counted while they ran.
    std::atomic<int> busy = 0;
    /// A test reads it after its last answer: only then have the connections' threads, which are
    /// detached, done with this object.
    std::atomic<int> answered = 0;
    std::atomic<int> offered = 0;
    const std::unique_ptr<Listener> listener;
};

class ListenerTest : public NothingLeftBehind {};

std::unique_ptr<Listener> listenAt(const std::string& path) {
    UniqueFd socket = boundSocket(path, SOCK_STREAM);
    EXPECT_EQ(::listen(socket.get(), 16), 0);
    const UniqueFd shared(::dup(socket.get()));
    auto listener = Listener::listenerAtSocket(std::move(socket));
    // Another process that shares the socket may take a connection first.
    EXPECT_NE(::fcntl(shared.get(), F_GETFL) & O_NONBLOCK, 0);
    return listener;
}

/// Whether a listener accepts a connection over this endpoint.
bool reachable(const EndpointRef& endpoint) {
    const auto connection = Connection::connectionToEndpoint(endpoint);
    return connection->remoteObjectProxy().call("ask:", {1}) == Value(Array{1});
}

/// The error of the first message over a connection to this endpoint.
ErrorRef firstError(const EndpointRef& endpoint) {
    ErrorRef result;
    const auto connection = Connection::connectionToEndpoint(endpoint);
    connection->setSendTimeout(200ms);
    connection->remoteObjectProxyWithErrorHandler([&](const ErrorRef& error) { result = error; })
        .notify("tell:", {});
    return result;
}

TEST_F(ListenerTest, AcceptsConnectionsWhileItIsResumed) {
    const ScratchFolder folder;
    const std::string path = folder.path("socket");
    Server server(listenAt(path));
    const auto connection = Connection::connectionToServiceAtPath(path).value();
    EXPECT_EQ(connection->peer().pid, ::getpid());
    server.listener->suspend();
    const RawPeer waiting = RawPeer(connectedSocket(path));
    waiting.send(kAsk);
    EXPECT_FALSE(waiting.readable(50ms));
    server.listener->resume();
    EXPECT_EQ(waiting.receive(5), kEcho);
    server.accepting = false;
    EXPECT_TRUE(RawPeer(connectedSocket(path)).closedWithin());
    server.throwing = true;
    EXPECT_TRUE(RawPeer(connectedSocket(path)).closedWithin());
    // Accepted connections outlive the listener; new ones are soon refused.
    server.listener->invalidate();
    EXPECT_TRUE(eventually([&] { return !Connection::connectionToServiceAtPath(path); }));
    const auto refused = Connection::connectionToServiceAtPath(path);
    ASSERT_TRUE(!refused && isInvalid(refused.error()));
    EXPECT_EQ(*refused.error()->underlyingError(), *makePosixError(ECONNREFUSED));
    EXPECT_TRUE(connection->remoteObjectProxy().call("ask:", {2}) == Value(Array{2}));
    EXPECT_EQ(server.answered, 2);
    EXPECT_EQ(server.busy, 2);
}

TEST_F(ListenerTest, EndpointsReachTheirListener) {
    const Server first, second;
    const EndpointRef endpoint = first.listener->endpoint();
    EXPECT_TRUE(reachable(endpoint));
    EXPECT_TRUE(reachable(endpoint));
    EXPECT_TRUE(reachable(second.listener->endpoint()));
    EXPECT_EQ(first.answered, 2);
    EXPECT_EQ(second.answered, 1);
    first.listener->invalidate();
    EXPECT_EQ(first.listener->endpoint().descriptor, nullptr);
    EXPECT_TRUE(isInvalid(firstError(endpoint)) && isInvalid(firstError(EndpointRef())));
    // What could be sent to, but is no half of a pair for packets.
    const ScratchFolder folder;
    const UniqueFd named = boundSocket(folder.path("named"), SOCK_SEQPACKET);
    ASSERT_EQ(::listen(named.get(), 1), 0);
    SocketPair stream = makeSocketPair(SOCK_STREAM);
    UniqueFd others[] = {UniqueFd(::open("/", O_PATH | O_CLOEXEC)), std::move(stream.first),
                         socketAt(folder.path("named"), SOCK_SEQPACKET, ::connect)};
    for (UniqueFd& other : others) {
        ASSERT_TRUE(other);
        EXPECT_TRUE(isInvalid(firstError({std::make_shared<const UniqueFd>(std::move(other))})));
    }
}

TEST_F(ListenerTest, AnEndpointWhoseQueueIsFullHoldsNobodyForEver) {
    SocketPair packets = makeSocketPair(SOCK_SEQPACKET);
    const EndpointRef endpoint{std::make_shared<const UniqueFd>(std::move(packets.first))};
    ErrorRef error;
    for (int i = 0; i < 2000 && !error; ++i)
        error = firstError(endpoint);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(*error->underlyingError(), *makePosixError(ETIMEDOUT));
    // A connection that found the queue full is opened as soon as there is space.
    const auto late = Connection::connectionToEndpoint(endpoint);
    std::vector<UniqueFd> taken;
    char byte = 1;
    while (receive(packets.second, {&byte, 1}, taken))
        taken.clear();
    late->remoteObjectProxy().notify("tell:", {});
    EXPECT_TRUE(receive(packets.second, {&byte, 1}, taken));
    ASSERT_EQ(taken.size(), 1U);
    EXPECT_EQ(RawPeer(std::move(taken[0])).receive(kTell.size()), kTell);
}

TEST_F(ListenerTest, AHalfIsTakenOnlyFromTheProcessThatMadeIt) {
    if (::geteuid() != 0) GTEST_SKIP() << "must be root to speak as two users";
    const ScratchFolder folder;
    const Server service(listenAt(folder.path("socket"))), anonymous;
    EndpointRef endpoint = anonymous.listener->endpoint();
    RawPeer raw(UniqueFd(::dup(endpoint.descriptor->get())));
    SocketPair own = makeSocketPair(SOCK_STREAM);
    const auto offer = [&] {
        raw.send(std::string(1, '\0'), {own.second.get()});
        return true;
    };
    // The half would carry the identity of its maker, not of the process or user that offers it.
    EXPECT_EQ(Child(0, offer).wait(), 0);
    std::thread([&] {
        constexpr uid_t kNobody = 65534;
        ::syscall(SYS_setresuid, kNobody, kNobody, -1);  // only this thread
        offer();
    }).join();
    // Nor are these offers: another byte, another kind of socket, nothing at all.
    const SocketPair packets = makeSocketPair(SOCK_SEQPACKET);
    raw.send("y", {own.second.get()});
    raw.send(std::string(1, '\0'), {packets.second.get()});
    raw.send("");
    EXPECT_TRUE(reachable(endpoint));
    EXPECT_EQ(anonymous.offered, 1);
    const EndpointRef shared = service.listener->endpoint();
    const auto isServed = [&] {
        SocketPair mine = makeSocketPair(SOCK_STREAM);
        RawPeer(UniqueFd(::dup(shared.descriptor->get())))
            .send(std::string(1, '\0'), {mine.second.get()});
        const RawPeer peer(std::move(mine.first));
        peer.send(kAsk);
        return peer.receive(kEcho.size()) == kEcho;
    };
    EXPECT_EQ(Child(0, [&] { return isServed() && isServed(); }).wait(), 0);
    EXPECT_EQ(service.offered, 2);
    // The service refuses a socket pair of its own process.
    EXPECT_FALSE(reachable(service.listener->endpoint()));
    EXPECT_EQ(service.offered, 2);
    EXPECT_TRUE(eventually([&] { return !service.listener->hasBusyConnection(); }));
    // What is no offer does not hide one behind it when the holders have gone.
    anonymous.listener->suspend();
    raw.send("x");
    raw.send("", {own.first.get()});
    offer();
    raw.close();
    endpoint = {};
    anonymous.listener->resume();
    const RawPeer peer(std::move(own.first));
    peer.send(kAsk);
    EXPECT_EQ(peer.receive(kEcho.size()), kEcho);
    EXPECT_EQ(anonymous.answered, 2);
}

TEST(UserQuotasTest, ChargeUpToTheLimitAndForgetWhoHoldsNothing) {
    UserQuotaTable table;
    auto account = table.quotasForUser(1);
    const std::size_t most = UserQuotas::limit(Resource::endpoints);
    QuotaCharge first(account, Resource::endpoints), second(account, Resource::endpoints);
    EXPECT_FALSE(first.setAmount(most + 1));
    EXPECT_TRUE(first.setAmount(most));
    EXPECT_FALSE(second.setAmount(1));
    second = std::move(first);
    EXPECT_EQ(account->charged(Resource::endpoints), most);
    second = QuotaCharge();
    EXPECT_EQ(account->charged(Resource::endpoints), 0U);
    account = table.quotasForUser(2);
    EXPECT_EQ(table.accounts().size(), 1U);
    // One that must still report how many of its lines were left out stays.
    while (account->logLines().admit(quotaSecond())) {
    }
    account.reset();
    EXPECT_EQ(table.accounts().size(), 1U);
}

TEST_F(ListenerTest, EndpointsEndWithTheirHoldersAndCountAgainstTheirOwner) {
    const Server server;
    const auto& listener = server.listener;
    const std::ptrdiff_t descriptors = openDescriptors();
    const PeerIdentity owner{1, 1000, 1000, 0, nullptr}, another{2, 1001, 1001, 0, nullptr};
    std::vector<EndpointRef> held;
    for (int i = 0; i < 64; ++i)
        ASSERT_NE(held.emplace_back(listener->endpoint(&owner)).descriptor, nullptr);
    EXPECT_EQ(listener->endpoint(&owner).descriptor, nullptr);
    EXPECT_NE(listener->endpoint(&another).descriptor, nullptr);
    held.pop_back();
    EXPECT_TRUE(eventually([&] { return listener->endpoint(&owner).descriptor != nullptr; }));
    held.clear();
    EXPECT_TRUE(eventually([&] { return openDescriptors() == descriptors; }));
}

}  // namespace
}  // namespace corvalen
