// SPDX-License-Identifier: MIT
// How the threads that work for one request learn that they should stop.
#pragma once

#include <atomic>
#include <cstdint>

namespace corvalen {

/// A request to stop work on many objects before the next one. Work on a single object is never
/// cut off: only loops over objects read this. Any thread may call.
class Cancellation {
  public:
    Cancellation() noexcept = default;
    virtual ~Cancellation() = default;
    Cancellation(const Cancellation&) = delete;
    Cancellation& operator=(const Cancellation&) = delete;

    /// True once the work should stop; stays true. Cheap enough for every object: it reads the
    /// coarse clock, and calls `probe` at most every kProbeInterval.
    [[nodiscard]] bool requested() noexcept;
    void request() noexcept { _requested.store(true, std::memory_order_relaxed); }

    /// The number of objects that the operation has finished, for the log and the answer.
    void setObjectCount(std::uint64_t count) noexcept {
        _objectCount.store(count, std::memory_order_relaxed);
    }
    [[nodiscard]] std::uint64_t objectCount() const noexcept {
        return _objectCount.load(std::memory_order_relaxed);
    }

    /// Nanoseconds between two probes.
    static constexpr std::int64_t kProbeInterval = 20'000'000;

  protected:
    /// Finds out whether somebody still wants the work. Called by one thread at a time.
    [[nodiscard]] virtual bool probe() noexcept { return false; }

  private:
    std::atomic<bool> _requested{false};
    std::atomic<std::int64_t> _lastProbe{0};
    std::atomic<std::uint64_t> _objectCount{0};
};

/// The cancellation of the request that the calling thread performs. Outside of a request it is
/// one that is never requested. Threads that help get it by reference from the thread they help.
[[nodiscard]] Cancellation& currentCancellation() noexcept;

/// Makes `cancellation` the calling thread's current one for the scope's lifetime. Borrows it.
class CancellationScope {
  public:
    explicit CancellationScope(Cancellation& cancellation) noexcept;
    ~CancellationScope();
    CancellationScope(const CancellationScope&) = delete;
    CancellationScope& operator=(const CancellationScope&) = delete;

  private:
    Cancellation* _outer;
};

}  // namespace corvalen
