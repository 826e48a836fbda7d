// SPDX-License-Identifier: MIT
#include "hostile/attacks.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/prctl.h>

#include <csignal>
#include <random>

#include "operations/names.hpp"
#include "support/unix_socket.hpp"
#include "xpc/limits.hpp"
#include "xpc/message.hpp"

namespace corvalen::test {
namespace {

constexpr std::size_t kQuota = wire::kMaximumConnectionsPerUser;
/// More lingering halves than this add no harm.
constexpr int kLingeringHalves = 8;

/// Opens connections until the user's quota is used up.
std::vector<RawPeer> takeAllConnections() {
    std::vector<RawPeer> all;
    for (std::size_t i = 0; i < kQuota; ++i)
        all.push_back(connectRaw());
    // A reply shows that the last one was accepted.
    all.back().send(request(selector::kGetVersionString));
    (void)all.back().readable(2s);
    return all;
}

/// Keeps a resource open until the attacker's process ends.
template <class Kept>
Kept& keepForEver(Kept kept) {
    return *new Kept(std::move(kept));
}

/// The process that closes a lingering half last waits, also if it is the attacker, so each half
/// has a process of its own. Mostly the daemon is the last one.
void inProcessesOfTheirOwn(const std::function<void()>& send) {
    for (int i = 0; i < kLingeringHalves; ++i) {
        if (::fork() != 0) continue;
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        send();
        for (;;)
            ::pause();
    }
    std::this_thread::sleep_for(200ms);
}

std::string notification(std::string_view selector, const Array& params) {
    EncodedMessage message;
    (void)encodeNotification(selector, params, message);
    return message.bytes;
}

/// Asks for an endpoint of the daemon's listener and takes it out of the answer.
UniqueFd requestEndpoint(const RawPeer& connection) {
    connection.send(request(selector::kConnectWithEndpoint));
    std::vector<UniqueFd> descriptors;
    std::array<char, 64> room{};
    if (connection.readable(5s)) (void)receive(Descriptor(connection.fd()), room, descriptors);
    return descriptors.empty() ? UniqueFd() : std::move(descriptors[0]);
}

/// One half of a socket pair whose queue holds the last descriptor of a TCP connection that lingers
/// for an hour with unsent bytes: the thread that closes the half waits as long.
UniqueFd makeLingeringHalf() {
    UniqueFd server(::socket(AF_INET, SOCK_STREAM, 0));
    UniqueFd client(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    if (::bind(server.get(), generic, size) != 0 || ::listen(server.get(), 1) != 0 ||
        ::getsockname(server.get(), generic, &size) != 0 ||
        ::connect(client.get(), generic, size) != 0) {
        return {};
    }
    const std::string full(65'536, 'x');
    while (::send(client.get(), full.data(), full.size(), MSG_DONTWAIT) > 0) {
    }
    const linger hour{1, 3600};
    ::setsockopt(client.get(), SOL_SOCKET, SO_LINGER, &hour, sizeof hour);
    SocketPair pair = makeSocketPair(SOCK_STREAM);
    RawPeer(std::move(pair.second)).send("x", {client.get()});
    keepForEver(std::move(server));
    return std::move(pair.first);
}

// The first three block the thread that closes what they sent: a connection past the quota, a
// packet that no listener expects, and an offered connection past the quota.
bool lingerPastTheQuota() {
    keepForEver(takeAllConnections());
    inProcessesOfTheirOwn([] {
        const UniqueFd half = makeLingeringHalf();
        keepForEver(connectRaw()).send("x", {half.get()});
    });
    return true;
}

bool lingerInJunkPackets() {
    RawPeer& connection = keepForEver(connectRaw());
    const RawPeer endpoint(requestEndpoint(connection));
    inProcessesOfTheirOwn([&] { endpoint.send("junk", {makeLingeringHalf().get()}); });
    return endpoint.fd() >= 0;
}

bool lingerInOffers() {
    auto& all = keepForEver(takeAllConnections());
    const RawPeer endpoint(requestEndpoint(all[0]));
    inProcessesOfTheirOwn([&] {
        SocketPair pair = makeSocketPair(SOCK_STREAM);
        keepForEver(RawPeer(std::move(pair.first))).send("x", {makeLingeringHalf().get()});
        endpoint.send(std::string_view("\0", 1), {pair.second.get()});
    });
    return endpoint.fd() >= 0;
}

/// Sends a file in the first byte of a message, with another one behind it for an answer.
bool sendFile() {
    const UniqueFd file(::memfd_create("foreign", MFD_CLOEXEC));
    keepForEver(connectRaw()).send("\x94", {file.get()});
    RawPeer& after = keepForEver(connectRaw());
    after.send(request(selector::kGetVersionString));
    return !after.receive(1).empty();
}

/// Leaves every connection with a buffer for the largest message and one byte in it.
bool pinBuffers() {
    // A byte of the next message comes in the same read.
    const std::string message =
        notification("x", {Data::copy(std::string(wire::kMaximumMessageSize - 64, 'x'))}) + '\x93';
    for (int i = 0; i < 16; ++i) {
        RawPeer connection = connectRaw();
        connection.send(message);
        keepForEver(std::move(connection));
    }
    return true;
}

bool registerManyNumbers() {
    RawPeer connection = connectRaw();
    for (std::int32_t number = 1; number <= 70000; ++number)
        connection.send(notification(selector::kRegisterClient, {number}));
    // Messages are handled in order: the answer comes after the last registration.
    connection.send(request(selector::kGetVersionString));
    const bool answered = connection.readable(10s);
    keepForEver(std::move(connection));
    return answered;
}

/// Sends 20,000 requests that are rejected, each worth a log line.
bool floodLog() {
    const RawPeer connection = connectRaw();
    const std::string rejected = request(selector::kPerformPrivilegedOperation,
                                         {77, Data::copy(std::string(32, 'x')), Value(), Array()});
    for (int i = 0; i < 20000; ++i) {
        connection.send(rejected);
        if (connection.receive(1).empty()) return false;
        std::array<char, 256> rest{};
        (void)::recv(connection.fd(), rest.data(), rest.size(), MSG_DONTWAIT);
    }
    return true;
}

/// Waits for the end that it causes.
bool unregisterForEver() {
    for (;;) {
        const RawPeer connection = connectRaw();
        connection.send(notification(selector::kUnregisterClient, {0}));
        (void)connection.closedWithin(1s);
    }
}

/// Leaves the backlog full of connections that each end the daemon.
bool floodBacklog() {
    for (;;)
        connectRaw().send(notification(selector::kUnregisterClient, {0}));
}

bool connectForEver() {
    for (;;) {
        const std::vector<RawPeer> all = takeAllConnections();
        for (int i = 0; i < 16; ++i)
            (void)requestEndpoint(all[static_cast<std::size_t>(i)]);
    }
}

bool sendGarbageForEver() {
    std::mt19937 random(4711);
    std::string garbage(4096, '\0');
    for (;;) {
        for (char& byte : garbage)
            byte = static_cast<char>(random());
        // Half of them begin as messages do.
        if (random() % 2 == 0) garbage.replace(0, 3, std::string("\x94\x00\x07", 3));
        const RawPeer connection = connectRaw();
        const UniqueFd null(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        connection.send(garbage, {null.get(), connection.fd()});
    }
}

}  // namespace

std::string request(std::string_view selector, const Array& params) {
    EncodedMessage message;
    (void)encodeRequest(7, selector, params, message);
    return message.bytes;
}

RawPeer connectRaw() {
    return RawPeer(connectedSocket(kServiceSocketPath));
}

const std::map<std::string, Attack>& attacks() {
    static const std::map<std::string, Attack> kAttacks = {
        {"linger-past-quota", lingerPastTheQuota},
        {"linger-in-junk", lingerInJunkPackets},
        {"linger-in-offers", lingerInOffers},
        {"send-file", sendFile},
        {"pin-buffers", pinBuffers},
        {"register-numbers", registerManyNumbers},
        {"flood-log", floodLog},
        {"unregister", unregisterForEver},
        {"flood-backlog", floodBacklog},
        {"connect", connectForEver},
        {"garbage", sendGarbageForEver},
    };
    return kAttacks;
}

}  // namespace corvalen::test
