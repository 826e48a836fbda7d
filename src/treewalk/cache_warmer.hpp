// SPDX-License-Identifier: MIT
// Threads that run ahead of an ordered walk and read from the disk what it will need.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

#include "platform/files/subtree_walk.hpp"
#include "treewalk/descent_rules.hpp"
#include "treewalk/search.hpp"

namespace corvalen {

/// Walks the tree of another walk a second time, out of order and with as many threads as the disk
/// can use, only to fill the kernel's caches. Starts when that walk waits for the disk; ends with
/// it, or when neither has waited for a while. Returns no objects to the walk, so it cannot change
/// the walk's order or results.
///
/// For one thread at a time; any thread may call noteWaits().
class CacheWarmer {
  public:
    /// Maximum lead over the walk in objects: further ahead, the kernel might have to drop what was
    /// read before the walk uses it.
    static constexpr std::uint64_t kMostAhead = 500'000;

    /// `mask`: the fields of statx(2) that the walk needs of the objects that `filter` accepts (all
    /// if it is empty); 0 for names only. The threads are charged to `user`. `waits` is
    /// SubtreeOptions::waits.
    CacheWarmer(const SearchedFolder& folder, bool stayOnFileSystem, unsigned mask,
                NameFilter filter, std::uint32_t user,
                long (*waits)() noexcept = SubtreeOptions::waitsOfThread);
    CacheWarmer(const CacheWarmer&) = delete;
    CacheWarmer& operator=(const CacheWarmer&) = delete;
    ~CacheWarmer();

    /// Call when the walk starts, and when it continues after waiting for anything but the disk.
    void resume() noexcept { _switches = _waits(); }
    /// Call at each object of the walk; `walked` is their number so far.
    void advance(std::uint64_t walked) noexcept {
        if (walked % SubtreeOptions::kObjectsPerLook == 0) look(walked);
    }
    /// Adds the waits for the disk of another thread of the walk.
    void noteWaits(long waits) noexcept { _waitsElsewhere.fetch_add(waits); }
    /// Ends the threads and waits for them; each finishes its current system call.
    void stop() noexcept;

  private:
    class Pool;

    void look(std::uint64_t walked) noexcept;
    void start() noexcept;

    const UniqueFd _top;
    const DescentRules _rules;
    const unsigned _mask;
    const NameFilter _filter;
    const std::uint32_t _user;
    long (*const _waits)() noexcept;

    long _switches = 0;
    long _recentWaits = 0;
    std::atomic<long> _waitsElsewhere{0};
    std::atomic<std::uint64_t> _walked{0};
    int _starts = 0;
    int _quietLooks = 0;
    std::unique_ptr<Pool> _pool;
};

}  // namespace corvalen
