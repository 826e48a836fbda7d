// SPDX-License-Identifier: MIT
#include "exec/leftover_output.hpp"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <system_error>
#include <thread>
#include <vector>

namespace corvalen {
namespace {

constexpr std::chrono::milliseconds kPause{100};
constexpr std::size_t kBufferSize = std::size_t{1} << 16U;
/// Capacity of the largest pipe (1 MiB, pipe(7)), in buffers.
constexpr int kReadsPerRound = 16;

std::atomic<int> pairsInUse{0};

/// Reads what the pipe holds, up to kReadsPerRound buffers; closes it at its end.
void discardAvailable(UniqueFd& pipe, std::vector<char>& buffer) noexcept {
    for (int i = 0; pipe && i < kReadsPerRound; ++i) {
        const ssize_t count = ::read(pipe.get(), buffer.data(), buffer.size());
        if (count > 0 || (count < 0 && errno == EINTR)) continue;
        if (count == 0 || errno != EAGAIN) pipe.reset();
        return;
    }
}

void discardToTheEnd(UniqueFd output, UniqueFd error) {
    std::vector<char> buffer(kBufferSize);
    while (output || error) {
        std::array<pollfd, 2> waiting{pollfd{output ? output.get() : -1, POLLIN, 0},
                                      pollfd{error ? error.get() : -1, POLLIN, 0}};
        if (::poll(waiting.data(), waiting.size(), -1) < 0 && errno != EINTR) break;
        discardAvailable(output, buffer);
        discardAvailable(error, buffer);
        std::this_thread::sleep_for(kPause);
    }
    --pairsInUse;
}

}  // namespace

void discardLeftoverOutput(UniqueFd output, UniqueFd error) noexcept {
    if (++pairsInUse > kMaximumLeftoverPairs) {
        --pairsInUse;
        return;
    }
    try {
        std::thread(discardToTheEnd, std::move(output), std::move(error)).detach();
    } catch (const std::exception&) {  // no thread: the destructors close the pipes
        --pairsInUse;
    }
}

}  // namespace corvalen
