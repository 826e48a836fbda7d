// SPDX-License-Identifier: MIT
// An ordered walk that two threads share: whichever is free takes over the rest of an outer
// directory of the other.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "platform/files/tree_walk.hpp"
#include "treewalk/directory_enumerator.hpp"
#include "treewalk/search.hpp"

namespace corvalen {

/// Returns the objects that a filter accepts, in the order of a QRLDirectoryEnumerator, examined.
/// Two threads walk; the caller's only returns what they found. The tree must hold no special
/// object (DescentRules::isSpecial): the limits and the log of such objects count in order.
///
/// A segment is a part of the walk's order that one thread walks. For a free thread the other one
/// splits its segment: the last part of its outermost directory becomes the next segment. What was
/// found in later segments waits in memory, in at most kMostWaiting batches; then their thread
/// waits too.
///
/// Uses the current cancellation of the thread that creates it. For one thread.
class SplitWalk {
  public:
    static constexpr std::size_t kThreads = 2;
    static constexpr std::size_t kMostWaiting = 16;

    /// Whether it is correct for a tree, and likely faster than WalkAhead: it is slower where the
    /// threads find more than may wait.
    [[nodiscard]] static bool suits(const ObjectCount& tree) noexcept {
        constexpr std::uint64_t kFewestObjects = 4096;
        constexpr std::uint64_t kMostWanted = 6;  // one object in six
        return tree.arePlain && tree.objects >= kFewestObjects &&
               tree.wanted <= tree.objects / kMostWanted;
    }

    /// `mask` are the fields of statx(2) that attributes() must have. Takes the folder's
    /// descriptor, unless no thread can be started: then it throws std::system_error.
    SplitWalk(SearchedFolder& folder, bool stayOnFileSystem, unsigned mask,
              const NameFilter& filter);
    SplitWalk(const SplitWalk&) = delete;
    SplitWalk& operator=(const SplitWalk&) = delete;
    /// Ends an unfinished walk before its next object.
    ~SplitWalk();

    /// Sets what next() calls before it waits for a thread.
    void setBeforeWait(std::function<void()> action) { _beforeWait = std::move(action); }

    struct Object {
        std::string_view text;
        /// Number of objects before it, including those not returned.
        std::uint64_t index = 0;

        [[nodiscard]] std::string path() const { return std::string(text); }
    };

    /// Returns the next object, or null at the end; valid until the next step. Leaves out those
    /// that cannot be examined. Throws what the walk throws.
    const Object* next();
    /// Returns the attributes of the object that next() returned (a link's, not its target's).
    [[nodiscard]] const struct statx* attributes() const noexcept {
        return &_current.examined[_taken - 1];
    }
    /// After the end: whether a cancellation ended the walk.
    [[nodiscard]] bool wasCancelled() const noexcept { return _wasCancelled; }

  private:
    struct Batch {
        struct Find {
            std::size_t textBegin;
            std::size_t textSize;
            std::uint64_t index;  // in its segment
        };
        std::vector<Find> finds;
        std::vector<struct statx> examined;
        std::string texts;
        /// Objects of the segment up to the end of the batch.
        std::uint64_t walked = 0;
    };

    struct Segment {
        WalkRest rest;
        std::deque<Batch> ready;
        bool hasThread = false;
        bool hasEnded = false;
        bool wasCancelled = false;
        std::exception_ptr failure;
        /// All its objects; once it has ended.
        std::uint64_t walked = 0;
    };
    using Lock = std::unique_lock<std::mutex>;

    // Of the walking threads.
    void work() noexcept;
    Segment* takeSegment();
    void walkSegment(Segment& segment, std::byte* buffer);
    void split(const Segment& segment, QRLDirectoryEnumerator& walk);
    void handOver(Segment& segment, Batch& batch);
    void end(Segment& segment, std::uint64_t walked, bool wasCancelled, std::exception_ptr failure);
    // Of the caller's thread.
    bool takeBatch();
    bool endFront();

    Cancellation& _cancellation = currentCancellation();
    const DescentRules _rules;
    const unsigned _mask;
    const NameFilter _filter;
    std::function<void()> _beforeWait;

    std::mutex _mutex;
    std::condition_variable _changed;
    // Guarded by the mutex; a segment's other members belong to its thread.
    std::list<Segment> _segments;  // in order; the caller takes from the first
    std::size_t _waiting = 0;      // batches of all segments
    std::vector<Batch> _unused;
    std::atomic<bool> _isAbandoned{false};
    /// Whether a thread is free.
    std::atomic<bool> _isWanted{false};
    /// The first segment.
    std::atomic<const Segment*> _front{nullptr};

    // Used by the caller's thread.
    Batch _current;
    std::size_t _taken = 0;
    Object _object;
    std::uint64_t _walkedBefore = 0;  // objects of the segments that were returned whole
    bool _wasCancelled = false;

    std::vector<std::thread> _threads;  // declared last: they use the other members
};

}  // namespace corvalen
