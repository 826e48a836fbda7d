// SPDX-License-Identifier: MIT
#include "foundation/cancellation.hpp"

#include <ctime>
#include <utility>

namespace corvalen {

namespace {

thread_local Cancellation* threadCancellation = nullptr;

/// Returns nanoseconds. The coarse clock ticks every few milliseconds and costs a fraction of
/// CLOCK_MONOTONIC.
std::int64_t coarseNow() noexcept {
    timespec now{};
    (void)::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

}  // namespace

bool Cancellation::requested() noexcept {
    if (_requested.load(std::memory_order_relaxed)) return true;
    const std::int64_t now = coarseNow();
    std::int64_t last = _lastProbe.load(std::memory_order_relaxed);
    // Acquire and release order the probes of different threads.
    if (now - last < kProbeInterval ||
        !_lastProbe.compare_exchange_strong(last, now, std::memory_order_acq_rel)) {
        return false;
    }
    if (probe()) request();
    return _requested.load(std::memory_order_relaxed);
}

Cancellation& currentCancellation() noexcept {
    static Cancellation never;
    return threadCancellation != nullptr ? *threadCancellation : never;
}

CancellationScope::CancellationScope(Cancellation& cancellation) noexcept
    : _outer(std::exchange(threadCancellation, &cancellation)) {}

CancellationScope::~CancellationScope() {
    threadCancellation = _outer;
}

}  // namespace corvalen
