// SPDX-License-Identifier: MIT
// Round trips of "nop" with the real daemon, authorization included, against a bare ping-pong of 64
// bytes between two processes over the same kind of socket, by turns; and the time from the first
// connection to the first reply of a daemon that was not running.
//
// Usage: endtoend_roundtrip [seconds]
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <thread>

#include "endtoend_daemon.hpp"
#include "foundation/descriptor.hpp"

namespace {

using namespace corvalen;
using namespace corvalen::bench;

constexpr std::size_t kBareSize = 64;
constexpr int kRounds = 5;
constexpr int kStarts = 21;

using RoundTrip = std::function<void()>;

/// Round trips a second of so many clients, each with a thread of its own.
double rate(const std::vector<RoundTrip>& clients, double seconds) {
    std::atomic<bool> stop = false;
    std::atomic<std::uint64_t> total = 0;
    std::vector<std::thread> threads;
    threads.reserve(clients.size());
    const double taken = secondsOf([&] {
        for (const RoundTrip& roundTrip : clients)
            threads.emplace_back([&] {
                std::uint64_t count = 0;
                for (; !stop; ++count)
                    roundTrip();
                total += count;
            });
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
        stop = true;
        for (std::thread& thread : threads)
            thread.join();
    });
    return static_cast<double>(total) / taken;
}

void echo(int socket) {
    std::array<char, kBareSize> buffer{};
    while (::recv(socket, buffer.data(), buffer.size(), MSG_WAITALL) == kBareSize)
        require(::send(socket, buffer.data(), buffer.size(), MSG_NOSIGNAL) == kBareSize, "echo");
}

/// The bare server: a process with a thread for each of its sockets.
class BareServer {
  public:
    explicit BareServer(std::size_t clients) {
        std::vector<UniqueFd> servers;
        for (std::size_t i = 0; i < clients; ++i) {
            int pair[2];
            require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == 0, "socketpair");
            _sockets.emplace_back(pair[0]);
            servers.emplace_back(pair[1]);
        }
        _process = ::fork();
        if (_process != 0) return;
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        _sockets.clear();
        std::vector<std::thread> threads;
        threads.reserve(servers.size());
        for (const UniqueFd& server : servers)
            threads.emplace_back([&server] { echo(server.get()); });
        for (std::thread& thread : threads)
            thread.join();
        ::_exit(0);
    }
    ~BareServer() {
        _sockets.clear();
        ::waitpid(_process, nullptr, 0);
    }
    BareServer(const BareServer&) = delete;
    BareServer& operator=(const BareServer&) = delete;

    [[nodiscard]] std::vector<RoundTrip> clients() const {
        std::vector<RoundTrip> clients;
        for (const UniqueFd& socket : _sockets)
            clients.emplace_back([fd = socket.get()] {
                std::array<char, kBareSize> buffer{};
                const bool done =
                    ::send(fd, buffer.data(), buffer.size(), 0) == kBareSize &&
                    ::recv(fd, buffer.data(), buffer.size(), MSG_WAITALL) == kBareSize;
                require(done, "bare round trip");
            });
        return clients;
    }

  private:
    std::vector<UniqueFd> _sockets;
    pid_t _process;
};

void compareRoundTrips(std::size_t count, double seconds) {
    const BareServer bare(count);
    std::vector<std::unique_ptr<Client>> clients;
    std::vector<RoundTrip> nops;
    for (std::size_t i = 0; i < count; ++i) {
        clients.push_back(Daemon::connect());
        nops.emplace_back([client = clients.back().get()] {
            require(client->perform(OperationCode{9998}, {}).succeeded(), "nop");
        });
    }
    std::vector<double> ratios;
    std::vector<double> rates;
    std::vector<double> bareRates;
    for (int round = 0; round < kRounds; ++round) {
        bareRates.push_back(rate(bare.clients(), seconds));
        rates.push_back(rate(nops, seconds));
        ratios.push_back(rates.back() / bareRates.back());
    }
    std::printf("nop, %zu client%s  %9.0f /s   bare 64 bytes %9.0f /s   ratio %.2f\n", count,
                count == 1 ? " " : "s", median(rates), median(bareRates), median(ratios));
}

void measureStart(const Daemon& daemon) {
    std::vector<double> times;
    for (int i = 0; i < kStarts; ++i) {
        daemon.waitUntilEnded();
        std::unique_ptr<Client> client;
        times.push_back(secondsOf([&] {
            client = Client::connect();
            require(client && client->perform(OperationCode{9998}, {}).succeeded(), "first nop");
        }));
        client->registerClient();
    }
    std::printf("start to first reply  %.1f ms (median of %d)\n", median(times) * 1000, kStarts);
}

}  // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 0.5;
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const Daemon daemon;
    measureStart(daemon);
    compareRoundTrips(1, seconds);
    compareRoundTrips(8, seconds);
    return 0;
}
