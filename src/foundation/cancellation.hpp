// SPDX-License-Identifier: MIT
// Cancellation of one request, shared by the threads that perform it.
#pragma once

#include <atomic>
#include <cstdint>

namespace corvalen {

/// A request to stop before the next object. Checked by loops over objects, and after a wait for
/// another request: work on a single object is never interrupted, except the copy of a file when
/// the process ends. Thread-safe.
class Cancellation {
  public:
    explicit Cancellation(std::uint32_t user = 0) noexcept : _user(user) {}
    virtual ~Cancellation() = default;
    Cancellation(const Cancellation&) = delete;
    Cancellation& operator=(const Cancellation&) = delete;

    /// Returns true once the work should stop, and from then on. Cheap enough for every object:
    /// reads the coarse clock, and calls `probe` at most every kProbeInterval.
    [[nodiscard]] bool requested() noexcept;
    void request() noexcept { _requested.store(true, std::memory_order_relaxed); }
    /// The same, because the process ends.
    void requestForEnd() noexcept {
        _processEnds.store(true, std::memory_order_relaxed);
        request();
    }
    [[nodiscard]] bool processEnds() const noexcept {
        return _processEnds.load(std::memory_order_relaxed);
    }

    /// The user for whom the work is done, and to whom its threads are charged.
    [[nodiscard]] std::uint32_t user() const noexcept { return _user; }

    /// Number of objects that the operation has finished, for the log and the answer.
    void setObjectCount(std::uint64_t count) noexcept {
        _objectCount.store(count, std::memory_order_relaxed);
    }
    void addObject() noexcept { _objectCount.fetch_add(1, std::memory_order_relaxed); }
    [[nodiscard]] std::uint64_t objectCount() const noexcept {
        return _objectCount.load(std::memory_order_relaxed);
    }

    /// Minimum time between two probes, in nanoseconds.
    static constexpr std::int64_t kProbeInterval = 20'000'000;

  protected:
    /// Returns true if the work is no longer wanted. Called by at most one thread per
    /// kProbeInterval.
    [[nodiscard]] virtual bool probe() noexcept { return false; }

  private:
    const std::uint32_t _user;
    std::atomic<bool> _requested{false};
    std::atomic<bool> _processEnds{false};
    std::atomic<std::int64_t> _lastProbe{0};
    std::atomic<std::uint64_t> _objectCount{0};
};

/// The cancellation of the request that the calling thread performs; outside of a request, one that
/// is never requested. Worker threads receive it by reference from the thread that starts them.
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
