// SPDX-License-Identifier: MIT
// The size of everything below a folder.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "corvalen/descriptor.hpp"
#include "foundation/cancellation.hpp"

namespace corvalen {

/// Adds up the sizes of all objects below a directory, at any depth and on every file system, with
/// two workers where a second thread can be had. While workers wait for the disk more are added, up
/// to `kMostWorkers`, and they leave when nothing is waited for: what is cached gains nothing by
/// them. Directories that a worker meets while few wait are put aside for whoever is free next; at
/// most `kWaitingFolders` wait, each an open descriptor.
class StorageSize {
  public:
    static constexpr std::size_t kWaitingFolders = 32;
    static constexpr int kUsualWorkers = 2;
    static constexpr int kMostWorkers = 16;
    /// Workers of all walks of the process beyond the usual ones.
    static constexpr int kMostExtraWorkers = 28;

    /// How often the calling thread gave up the processor by itself. Unlike its time off the
    /// processor this does not grow because others want it too.
    static long waitsOfThread() noexcept;
    using WaitCounter = long (*)() noexcept;

    /// The sum of the sizes as lstat(2) gives them; what cannot be examined adds nothing. The
    /// folder's own size is not counted. Nothing when the work was cancelled before its end. Throws
    /// std::bad_alloc.
    [[nodiscard]] static std::optional<std::uint64_t> ofContents(UniqueFd folder,
                                                                 Cancellation& cancellation,
                                                                 WaitCounter waits = waitsOfThread);

  private:
    /// What one thread has counted and not yet reported, and how often it had waited by then.
    struct Worker {
        std::uint64_t sum = 0;
        std::uint64_t unreported = 0;
        long waits = 0;
        bool waitsForDisk = true;
        bool mayLeaveEarly = true;
    };

    StorageSize(UniqueFd folder, Cancellation& cancellation, WaitCounter waits);

    void work(bool mayLeaveEarly) noexcept;
    void joinAll();
    bool takeFolder(Worker& worker, UniqueFd* folder);
    void sumBelow(Worker& worker, UniqueFd folder);
    void handOver(UniqueFd folder);
    void lookForWaits(Worker& worker) noexcept;
    void report(Worker& worker) noexcept;
    void addWorker() noexcept;
    void leave(Worker& worker) noexcept;

    Cancellation& _cancellation;
    const WaitCounter _waits;
    std::atomic<std::uint64_t> _objects{0};
    std::atomic<bool> _wasCancelled{false};
    /// True from nothing waiting until the queue is full, so that a handful is taken at a time.
    std::atomic<bool> _wanted{true};

    std::mutex _mutex;
    std::condition_variable _changed;
    // Guarded by the mutex.
    std::vector<UniqueFd> _waiting;
    std::vector<std::thread> _threads;
    std::exception_ptr _failure;
    std::uint64_t _sum = 0;
    int _workers = 1;
    int _idle = 0;
};

}  // namespace corvalen
