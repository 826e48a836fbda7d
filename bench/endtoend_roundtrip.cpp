// SPDX-License-Identifier: MIT
// Alternates round trips of "nop" with the real daemon, authorization included, and a bare
// ping-pong of 64 bytes between two processes over the same kind of socket. Also measures the time
// from the first connection to the first reply of a daemon that was not running.
// Measures each pair twice: as the scheduler places the threads, and with the servers on one
// processor and the clients on another.
//
// Usage: endtoend_roundtrip [seconds]
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <latch>
#include <memory>
#include <numeric>
#include <thread>

#include "corvalen/descriptor.hpp"
#include "endtoend_daemon.hpp"

namespace {

using namespace corvalen;
using namespace corvalen::bench;

constexpr std::size_t kBareSize = 64;
constexpr int kRounds = 50;
constexpr int kStarts = 21;
const std::string kBareSocketPath = "/run/bare.sock";

using RoundTrip = std::function<void()>;
/// Connects for the calling thread.
using Connect = std::function<RoundTrip()>;

/// Round trips per second of all clients; each has its own connection and thread.
double rate(std::size_t clients, const Connect& connect, double seconds) {
    std::latch ready(static_cast<std::ptrdiff_t>(clients) + 1);
    std::atomic<bool> stop = false;
    std::atomic<std::uint64_t> total = 0;
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < clients; ++i) {
        threads.emplace_back([&] {
            const RoundTrip roundTrip = connect();
            roundTrip();
            ready.arrive_and_wait();
            std::uint64_t count = 0;
            for (; !stop; ++count)
                roundTrip();
            total += count;
        });
    }
    ready.arrive_and_wait();
    const double taken = secondsOf([&] {
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
        stop = true;
        for (std::thread& thread : threads)
            thread.join();
    });
    return static_cast<double>(total) / taken;
}

void echo(const UniqueFd& socket) {
    std::array<char, kBareSize> buffer{};
    while (::recv(socket.get(), buffer.data(), buffer.size(), MSG_WAITALL) == kBareSize)
        require(::send(socket.get(), buffer.data(), buffer.size(), MSG_NOSIGNAL) == kBareSize,
                "echo");
}

/// The bare server: a process with one thread per connection, like the daemon.
class BareServer {
  public:
    BareServer() {
        const UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_un address = bareAddress();
        const bool listening = ::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address),
                                      sizeof address) == 0 &&
                               ::listen(listener.get(), SOMAXCONN) == 0;
        require(listening, "listening");
        _process = ::fork();
        if (_process != 0) return;
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;)
            std::thread([socket = UniqueFd(::accept(listener.get(), nullptr, nullptr))] {
                echo(socket);
            }).detach();
    }
    ~BareServer() {
        ::kill(_process, SIGKILL);
        ::waitpid(_process, nullptr, 0);
        ::unlink(kBareSocketPath.c_str());
    }
    BareServer(const BareServer&) = delete;
    BareServer& operator=(const BareServer&) = delete;

    [[nodiscard]] pid_t process() const noexcept { return _process; }

    static RoundTrip connect() {
        const auto socket =
            std::make_shared<UniqueFd>(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_un address = bareAddress();
        require(::connect(socket->get(), reinterpret_cast<const sockaddr*>(&address),
                          sizeof address) == 0,
                "connecting");
        return [socket] {
            std::array<char, kBareSize> buffer{};
            const bool done =
                ::send(socket->get(), buffer.data(), buffer.size(), 0) == kBareSize &&
                ::recv(socket->get(), buffer.data(), buffer.size(), MSG_WAITALL) == kBareSize;
            require(done, "bare round trip");
        };
    }

  private:
    static sockaddr_un bareAddress() {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        kBareSocketPath.copy(address.sun_path, sizeof address.sun_path - 1);
        return address;
    }

    pid_t _process;
};

RoundTrip connectForNop() {
    return [client = std::shared_ptr<Client>(Client::connect())] {
        require(client->perform(OperationCode{9998}, {}).succeeded(), "nop");
    };
}

enum class Placement { scheduler, twoProcessors };
constexpr int kServerProcessor = 0;
constexpr int kClientProcessor = 1;

/// Keeps a thread, and those that it creates from then on, on one processor (sched_setaffinity(2)).
void keepOn(int processor, pid_t thread) {
    cpu_set_t processors;
    CPU_ZERO(&processors);
    CPU_SET(static_cast<unsigned>(processor), &processors);
    require(::sched_setaffinity(thread, sizeof processors, &processors) == 0, "sched_setaffinity");
}

void keepProcessOn(int processor, pid_t process) {
    for (const auto& task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task"))
        keepOn(processor, std::stoi(task.path().filename()));
}

double mean(const std::vector<double>& values) {
    return std::accumulate(values.begin(), values.end(), 0.0) / static_cast<double>(values.size());
}

/// The time between two threads depends on their processors. So both sides reconnect in every
/// round, and the means of many rounds are compared.
void compareRoundTrips(const Daemon& daemon, std::size_t clients, Placement placement,
                       double seconds) {
    const BareServer bare;
    const auto holder = Daemon::connect();
    const bool onTwo = placement == Placement::twoProcessors;
    if (onTwo) {
        keepProcessOn(kServerProcessor, bare.process());
        keepProcessOn(kServerProcessor, daemon.process());
        keepProcessOn(kClientProcessor, ::getpid());
    }
    std::vector<double> rates;
    std::vector<double> bareRates;
    for (int round = 0; round < kRounds; ++round) {
        bareRates.push_back(rate(clients, BareServer::connect, seconds));
        rates.push_back(rate(clients, connectForNop, seconds));
    }
    std::printf("nop, %zu client%s%s  %9.0f /s   bare 64 bytes %9.0f /s   ratio %.2f\n", clients,
                clients == 1 ? " " : "s", onTwo ? ", two processors" : "                ",
                mean(rates), mean(bareRates), mean(rates) / mean(bareRates));
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

/// The scheduler keeps threads together that wake only each other. New threads inherit their
/// creator's count of wakees (record_wakee and wake_wide of the fair scheduler), so without a new
/// process earlier measurements would affect the two sides differently.
void inProcessOfItsOwn(const std::function<void()>& measure) {
    const pid_t process = ::fork();
    if (process == 0) {
        measure();
        ::_exit(0);
    }
    int status = 0;
    require(::waitpid(process, &status, 0) == process && status == 0, "measuring");
}

}  // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 0.1;
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const Daemon daemon;
    inProcessOfItsOwn([&] { measureStart(daemon); });
    for (const Placement placement : {Placement::scheduler, Placement::twoProcessors}) {
        for (const std::size_t clients : {1U, 8U})
            inProcessOfItsOwn([&] { compareRoundTrips(daemon, clients, placement, seconds); });
    }
    return 0;
}
