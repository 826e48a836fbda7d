// SPDX-License-Identifier: MIT
// The threads that run ahead of a walk in order and read from the disk what it will need.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

#include "platform/subtree_walk.hpp"
#include "treewalk/descent_rules.hpp"
#include "treewalk/search.hpp"

namespace corvalen {

/// Walks the tree of another walk a second time, out of order and with as many threads as the disk
/// can use, only so that the kernel has in memory what the other walk will ask for. Starts when
/// that walk waits for the disk, and ends with it, or when neither has waited for a while. Gives
/// nothing to the walk and shares nothing with it, so the walk's order and results stay its own.
///
/// Belongs to the walk's thread; noteWaits() may be called by any.
class CacheWarmer {
  public:
    /// The walk is this many objects behind at most, so that the kernel need not throw away what
    /// was read for it.
    static constexpr std::uint64_t kMostAhead = 500'000;

    /// `mask`: the fields of statx(2) that the walk needs of the objects that `filter` accepts, of
    /// all objects when it is empty; 0 for names only. `user` is charged with the threads.
    /// `waits` is SubtreeOptions::waits.
    CacheWarmer(const SearchedFolder& folder, bool stayOnFileSystem, unsigned mask,
                NameFilter filter, std::uint32_t user,
                long (*waits)() noexcept = SubtreeOptions::waitsOfThread);
    CacheWarmer(const CacheWarmer&) = delete;
    CacheWarmer& operator=(const CacheWarmer&) = delete;
    ~CacheWarmer();

    /// The walk begins to work, or goes on after it waited for something else than the disk.
    void resume() noexcept { _switches = _waits(); }
    /// The walk has come to its next object, `walked` in all.
    void advance(std::uint64_t walked) noexcept {
        if (walked % SubtreeOptions::kObjectsPerLook == 0) look(walked);
    }
    /// Another thread of the walk has waited for the disk this often.
    void noteWaits(long waits) noexcept { _waitsElsewhere.fetch_add(waits); }
    /// Ends the threads and waits for them; each finishes the system call it is in.
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
