// SPDX-License-Identifier: MIT
// A walk by several threads, for work that does not depend on the order of the objects.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "platform/files/tree_walk.hpp"

namespace corvalen {

/// The sum, or the largest number if it is larger: files may report any size up to 2^63 - 1.
[[nodiscard]] inline std::uint64_t saturatedSum(std::uint64_t one, std::uint64_t other) noexcept {
    return one > UINT64_MAX - other ? UINT64_MAX : one + other;
}

/// The work of a walk on each object. Several threads call the functions at once. A failure of
/// visit() or cannotEnter() ends the walk in all threads before their next object.
class SubtreeVisitor {
  public:
    virtual ~SubtreeVisitor() = default;
    /// `walk` stands at the object, which no thread has entered yet. `*enter` is true for a
    /// directory; its value at return decides whether the walk enters it. `*sum` belongs to the
    /// calling thread.
    virtual Result<> visit(TreeWalk& walk, bool* enter, std::uint64_t* sum) = 0;
    /// Called for a directory that failed to open, with the error of TreeWalk::open().
    virtual Result<> cannotEnter(SystemError /*error*/) { return {}; }
    /// Called after visit() while the calling thread keeps waiting for the disk. May read what a
    /// later walk of the tree will need.
    virtual void warm(TreeWalk& /*walk*/) {}
};

struct SubtreeOptions {
    static constexpr int kUsualWorkers = 2;
    static constexpr int kMostWorkers = 32;
    static constexpr std::size_t kWaitingDirectories = 32;
    /// A worker looks for waits after this many objects. It waits for the disk if it gave up the
    /// processor at least `kWaitsPerLook` times since its last look.
    static constexpr std::uint64_t kObjectsPerLook = 128;
    static constexpr long kWaitsPerLook = 2;
    /// Descriptor budget of each worker in walks that may have many.
    static constexpr std::size_t kBudgetOfMany = 16;

    /// Returns how often the calling thread gave up the processor voluntarily (ru_nvcsw of
    /// getrusage(2)). Unlike its time off the processor, this does not grow when other threads
    /// compete for it.
    static long waitsOfThread() noexcept;

    TreeWalkOptions walk = {};
    /// Adds visited objects to the object count of the walk's cancellation.
    bool counts = true;
    /// Maximum number of workers. Those beyond kUsualWorkers run only while workers wait for the
    /// disk, and each ends once it no longer waits. ExtraWorkers charges them to the user of the
    /// walk's cancellation.
    int mostWorkers = kUsualWorkers;
    /// Counts the looks that found a worker waiting. May be null. Borrowed.
    std::atomic<std::uint64_t>* waitsFound = nullptr;
    long (*waits)() noexcept = waitsOfThread;
};

/// Walks everything below `top`, each directory before its contents; returns when all threads have
/// ended. A second worker starts once the tree turns out to be large, if a thread can be started.
/// Workers put directories into a queue while it is short, and parts of large directories while it
/// is empty; free workers take them out. The queue holds about `kWaitingDirectories` open
/// descriptors, at most `kMostWorkers` more. The usual workers use the order in the walk's options;
/// extra ones take entries as listed, which needs less memory. The visitor may throw only
/// std::bad_alloc.
///
/// Returns the total of the sums of all threads, or the first failure: ECANCELED if the walk was
/// cancelled, ENOMEM also if memory ran out.
[[nodiscard]] Result<std::uint64_t> walkSubtrees(UniqueFd top, SubtreeVisitor& visitor,
                                                 const SubtreeOptions& options = {});

// The limit of the extra threads that walks start while they wait for the disk.

/// The extra threads of all walks in the process, each charged to a user. The walks of one user get
/// at most half of what those of other users leave: 30 of 60 for the only user, 15 for a second.
/// Any thread may call.
class ExtraWorkers {
  public:
    static constexpr int kMost = 60;

    /// Charges one thread to `user`. Returns false if the user has his share.
    [[nodiscard]] bool take(std::uint32_t user) noexcept;
    void giveBack(std::uint32_t user) noexcept;

  private:
    std::mutex _mutex;
    /// Users of the taken threads: the first `_taken` elements.
    std::array<std::uint32_t, kMost> _users{};
    int _taken = 0;
};

}  // namespace corvalen
