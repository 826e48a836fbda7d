// SPDX-License-Identifier: MIT
// Alternates round trips of a small request over a connection, and a bare ping-pong of 64 bytes
// over the same kind of socket between the same two processes. Usage: xpc_roundtrip [seconds]
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "xpc/connection.hpp"
#include "xpc/socket_io.hpp"

namespace {

using namespace corvalen;

constexpr std::size_t kBareSize = 64;
constexpr int kRounds = 5;
constexpr InterfaceMethod kMethods[] = {
    {"performPrivilegedOperation:withAuthorizationData:feedbackEndpoint:arguments:usingReply:",
     true}};
constexpr Interface kInterface{"Benchmark", kMethods};

class Answering : public ExportedObject {
  public:
    CallResult handleMessage(Connection&, std::string_view, Array) override {
        return CallResult{makePosixError(0), {}};
    }
};

bool exchange(int socket, std::array<char, kBareSize>& buffer, bool first) {
    if (first && ::send(socket, buffer.data(), buffer.size(), MSG_NOSIGNAL) != kBareSize) {
        return false;
    }
    if (::recv(socket, buffer.data(), buffer.size(), MSG_WAITALL) != kBareSize) return false;
    return first || ::send(socket, buffer.data(), buffer.size(), MSG_NOSIGNAL) == kBareSize;
}

/// Serves one half of a connection, and makes round trips over the other.
struct Contestant {
    std::function<void(UniqueFd)> serve;
    std::function<std::function<bool()>(UniqueFd)> client;
};

const Contestant kBare{[](UniqueFd socket) {
                           std::array<char, kBareSize> buffer{};
                           while (exchange(socket.get(), buffer, false))
                               continue;
                       },
                       [](UniqueFd socket) -> std::function<bool()> {
                           return [shared = std::make_shared<UniqueFd>(std::move(socket)),
                                   buffer = std::array<char, kBareSize>()]() mutable {
                               return exchange(shared->get(), buffer, true);
                           };
                       }};

const Contestant kConnection{
    [](UniqueFd socket) {
        std::atomic<bool> ended = false;
        const auto connection = Connection::adoptSocket(std::move(socket), nullptr);
        connection->setExportedInterface(kInterface, std::make_shared<Answering>());
        connection->setInvalidationHandler([&ended] {
            ended = true;
            ended.notify_all();
        });
        connection->resume();
        ended.wait(false);
    },
    [](UniqueFd socket) -> std::function<bool()> {
        const auto connection = Connection::adoptSocket(std::move(socket), nullptr);
        return [connection, proxy = connection->remoteObjectProxy()] {
            return proxy
                .call(kMethods[0].selector,
                      {std::uint64_t{9998}, Data{std::vector<std::uint8_t>(32)}, Value(), Array{}})
                .has_value();
        };
    }};

/// Round trips per second of all clients together, with a server in another process.
double measure(const Contestant& contestant, std::size_t clients, double seconds) {
    std::vector<SocketPair> pairs(clients);
    for (SocketPair& pair : pairs)
        pair = makeSocketPair(SOCK_STREAM);
    const pid_t server = ::fork();
    if (server == 0) {
        std::vector<std::thread> threads;
        threads.reserve(clients);
        for (SocketPair& pair : pairs)
            pair.second.reset();
        for (SocketPair& pair : pairs)
            threads.emplace_back(contestant.serve, std::move(pair.first));
        for (std::thread& thread : threads)
            thread.join();
        ::_exit(0);
    }
    for (SocketPair& pair : pairs)
        pair.first.reset();
    std::atomic<std::uint64_t> trips = 0;
    std::vector<std::thread> threads;
    threads.reserve(clients);
    const auto start = std::chrono::steady_clock::now();
    const auto end = start + std::chrono::duration<double>(seconds);
    for (SocketPair& pair : pairs) {
        threads.emplace_back([&, trip = contestant.client(std::move(pair.second))] {
            std::uint64_t mine = 0;
            while (std::chrono::steady_clock::now() < end && trip())
                ++mine;
            trips += mine;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    threads.clear();
    ::waitpid(server, nullptr, 0);
    return static_cast<double>(trips) / taken.count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::strtod(argv[1], nullptr) : 0.5;
    for (const std::size_t clients : {1U, 8U}) {
        std::vector<double> bare;
        std::vector<double> calls;
        std::vector<double> ratios;
        for (int round = 0; round < kRounds; ++round) {
            bare.push_back(measure(kBare, clients, seconds));
            calls.push_back(measure(kConnection, clients, seconds));
            ratios.push_back(calls.back() / bare.back());
        }
        std::printf("%zu client%s: bare %.0f/s, calls %.0f/s, ratio %.2f\n", clients,
                    clients == 1 ? "" : "s", median(bare), median(calls), median(ratios));
    }
    return 0;
}
