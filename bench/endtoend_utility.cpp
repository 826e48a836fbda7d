// SPDX-License-Identifier: MIT
// Alternates a utility's output through the daemon to the client's feedback handler, and the same
// bytes through two plain pipes (the utility, cat(1), a reader). Also measures the daemon's peak
// memory with little and with much output.
//
// Usage: endtoend_utility [megabytes [large]]
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdint>

#include "corvalen/descriptor.hpp"
#include "endtoend_daemon.hpp"
#include "operations/names.hpp"

namespace {

using namespace corvalen;
using namespace corvalen::bench;

constexpr int kRounds = 7;
constexpr std::size_t kPieceSize = std::size_t{64} << 10U;
constexpr std::uint64_t kMegabyte = 1'000'000;
constexpr std::uint64_t kLittle = 10;
/// A permitted utility; this program is mounted over it and runs under its name.
constexpr const char* kUtility = "/usr/bin/chmod";
constexpr const char* kUtilityName = "chmod";
constexpr const char* kProduce = "--produce";

/// The utility: writes this number of bytes to standard output.
int produce(std::uint64_t bytes) {
    static const std::array<char, kPieceSize> piece = [] {
        std::array<char, kPieceSize> filled{};
        filled.fill('x');
        return filled;
    }();
    while (bytes > 0) {
        const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(bytes, piece.size()));
        const ssize_t written = ::write(STDOUT_FILENO, piece.data(), wanted);
        if (written < 0) return 1;
        bytes -= static_cast<std::uint64_t>(written);
    }
    return 0;
}

void takePlaceOfUtility() {
    const std::string copy = "/run/utility";
    std::filesystem::copy_file("/proc/self/exe", copy);
    std::filesystem::permissions(copy, std::filesystem::perms(0755));
    require(::mount(copy.c_str(), kUtility, nullptr, MS_BIND, nullptr) == 0, "bind mount");
}

pid_t start(const std::vector<const char*>& words, int input, int output) {
    const pid_t process = ::fork();
    if (process != 0) return process;
    ::dup2(input, STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const char* word : words)
        arguments.push_back(const_cast<char*>(word));
    arguments.push_back(nullptr);
    ::execv(arguments[0], arguments.data());
    ::_exit(127);
}

/// The utility writes to a pipe, cat(1) copies it to another, and this process reads that.
void throughPipes(std::uint64_t bytes) {
    std::array<int, 2> first{};
    std::array<int, 2> second{};
    require(::pipe2(first.data(), O_CLOEXEC) == 0 && ::pipe2(second.data(), O_CLOEXEC) == 0,
            "pipe");
    UniqueFd ends[] = {UniqueFd(first[0]), UniqueFd(first[1]), UniqueFd(second[0]),
                       UniqueFd(second[1])};
    const std::string count = std::to_string(bytes);
    const pid_t utility = start({kUtility, kProduce, count.c_str()}, STDIN_FILENO, first[1]);
    const pid_t cat = start({"/bin/cat"}, first[0], second[1]);
    for (const int end : {0, 1, 3})
        ends[end].reset();
    static std::vector<char> buffer(std::size_t{256} << 10U);
    std::uint64_t received = 0;
    for (ssize_t got; (got = ::read(second[0], buffer.data(), buffer.size())) > 0;)
        received += static_cast<std::uint64_t>(got);
    ::waitpid(utility, nullptr, 0);
    ::waitpid(cat, nullptr, 0);
    require(received == bytes, "the output through pipes");
}

void throughDaemon(Client& client, std::uint64_t bytes) {
    std::uint64_t received = 0;
    const auto result =
        client.perform("execute-utility", {"/", kUtilityName, kProduce, std::to_string(bytes)},
                       [&received](const Dictionary& message) {
                           const Value* output = message.find(kQRLPORK_OutputData);
                           if (output != nullptr && output->data() != nullptr)
                               received += output->data()->bytes.size();
                       });
    if (!result.succeeded()) std::fprintf(stderr, "%s\n", describeFailure(result.error).c_str());
    require(result.succeeded() && received == bytes, "the output through the daemon");
}

void compareThroughput(std::uint64_t bytes) {
    const auto client = Daemon::connect();
    std::vector<double> ratios;
    std::vector<double> rates;
    std::vector<double> plainRates;
    const double megabytes = static_cast<double>(bytes) / static_cast<double>(kMegabyte);
    for (int round = 0; round < kRounds; ++round) {
        plainRates.push_back(megabytes / secondsOf([&] { throughPipes(bytes); }));
        rates.push_back(megabytes / secondsOf([&] { throughDaemon(*client, bytes); }));
        ratios.push_back(rates.back() / plainRates.back());
    }
    std::printf("output of %.0f MB   %6.0f MB/s   two plain pipes %6.0f MB/s   ratio %.2f\n",
                megabytes, median(rates), median(plainRates), median(ratios));
}

/// Peak memory of a daemon that ran only this operation.
long peakMemory(const Daemon& daemon, std::uint64_t megabytes) {
    daemon.waitUntilEnded();
    const auto client = Daemon::connect();
    throughDaemon(*client, megabytes * kMegabyte);
    return daemon.peakKilobytes();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == kProduce) return produce(std::stoull(argv[2]));
    const std::uint64_t megabytes = argc > 1 ? std::stoull(argv[1]) : 300;
    const std::uint64_t large = argc > 2 ? std::stoull(argv[2]) : 1000;
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const Daemon daemon;
    takePlaceOfUtility();
    compareThroughput(megabytes * kMegabyte);
    const long little = peakMemory(daemon, kLittle);
    const long much = peakMemory(daemon, large);
    std::printf("peak memory of the daemon   %.1f MiB at %ju MB   %.1f MiB at %ju MB\n",
                static_cast<double>(little) / 1024, static_cast<std::uintmax_t>(kLittle),
                static_cast<double>(much) / 1024, static_cast<std::uintmax_t>(large));
    return 0;
}
