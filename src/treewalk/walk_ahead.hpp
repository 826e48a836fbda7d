// SPDX-License-Identifier: MIT
// A walk whose directories are read ahead by a second thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <semaphore>
#include <string_view>
#include <thread>
#include <vector>

#include "treewalk/cache_warmer.hpp"
#include "treewalk/directory_enumerator.hpp"
#include "treewalk/search.hpp"

namespace corvalen {

/// Gives the objects of a QRLDirectoryEnumerator in its order. When the tree turns out to be large,
/// a second thread lists and opens the directories ahead, where one can be had; the caller's thread
/// examines and changes the objects one by one. Holds two batches, with at most `kBatchFolders`
/// more descriptors each. While one of the two waits for the disk, a CacheWarmer runs ahead.
///
/// Reports to the current cancellation of the thread that makes it how many objects its caller is
/// done with. When that is requested, both threads end before their next object.
///
/// Used by one thread. Throws what the walk throws.
class WalkAhead {
  public:
    static constexpr std::size_t kBatchObjects = 512;
    static constexpr std::size_t kBatchFolders = 128;

    /// `attributeMask`: the fields of statx(2) that attributes() has to have. With a filter, what
    /// it does not want is walked but not given. `waits` is SubtreeOptions::waits.
    WalkAhead(SearchedFolder folder, bool stayOnFileSystem, unsigned attributeMask,
              const NameFilter& filter = {},
              long (*waits)() noexcept = SubtreeOptions::waitsOfThread);
    WalkAhead(const WalkAhead&) = delete;
    WalkAhead& operator=(const WalkAhead&) = delete;
    /// A walk that was not finished ends here, before its next object.
    ~WalkAhead();

    /// An object of the walk; valid until the next step. The texts are NUL-terminated.
    struct Object {
        std::string_view path;
        std::string_view name;
        EntryType type = EntryType::unknown;
        /// The open directory that holds it.
        int parent = -1;
        /// The directory itself where it is one and the walk has entered it, else -1.
        int entered = -1;
        /// Objects of the walk before it, those that were not given included.
        std::uint64_t index = 0;
        /// Levels down to the directory that holds it, and to the innermost one after it: one more
        /// when the walk has entered it.
        std::uint32_t depth = 0;
        std::uint32_t innermostDepth = 0;
        /// Where the batch has the attributes that the walk had to read, else `kNotExamined`.
        std::uint32_t examined = kNotExamined;
    };
    static constexpr std::uint32_t kNotExamined = UINT32_MAX;

    /// The next object, or null when the walk is over.
    const Object* next();
    /// As QRLDirectoryEnumerator::skipDescendents() right after the object that `next` gave.
    void skipDescendents() noexcept { _skippedDepth = _object->innermostDepth; }
    /// After the end: whether the walk was cancelled before it.
    [[nodiscard]] bool wasCancelled() const noexcept { return _wasCancelled; }
    /// Of the object that `next` gave: its own attributes (a link's, not its target's); null with
    /// errno when it cannot be examined.
    const struct statx* attributes() noexcept {
        return _taken <= kSamples ? sampledAttributes() : readAttributes();
    }
    /// The next attributes() examines the object again.
    void forgetAttributes() noexcept { _attributes.forget(); }

  private:
    /// Of the first objects of a batch it is found out whether attributes() waits.
    static constexpr std::size_t kSamples = 4;

    struct Batch {
        std::vector<Object> objects;
        std::vector<char> texts;
        std::vector<struct statx> examined;
        /// Keeps the descriptors of the objects open.
        std::vector<SharedDirectory> folders;
        /// Objects of the walk up to its end, those that are not given included.
        std::uint64_t walked = 0;
        /// Of the outermost of these objects.
        std::size_t lowestDepth = 0;
        bool isLast = false;
        bool wasCancelled = false;
        std::exception_ptr failure;
    };

    const Object* takeObject();
    [[nodiscard]] bool isSkipped(const Object& object) noexcept;
    const struct statx* readAttributes() noexcept {
        return _attributes.read(_object->parent, _object->name.data(), _object->entered, _mask);
    }
    const struct statx* sampledAttributes() noexcept;
    void turnToNextBatch();
    void startHelper() noexcept;
    void readAhead() noexcept;
    void fill(Batch& batch);
    void append(Batch& batch, const WalkEntry& entry);
    int hold(Batch& batch, const SharedDirectory& folder);

    Cancellation& _cancellation = currentCancellation();
    // The second thread's once there is one.
    CacheWarmer _warmer;
    QRLDirectoryEnumerator _walk;
    const NameFilter _filter;
    std::uint64_t _walked = 0;
    /// Levels from this one on are closed before the next batch is filled; 0 for none.
    std::size_t _closedFrom = 0;
    // The caller's.
    const unsigned _mask;
    long (*const _waits)() noexcept;
    /// Objects in levels from this one on are not given; 0 for none.
    std::size_t _skippedDepth = 0;
    const Object* _object = nullptr;
    LazyAttributes _attributes;
    std::size_t _taken = 0;
    bool _wasCancelled = false;
    std::size_t _batchesAlone = 0;
    std::thread _helper;
    // The first is the caller's, the second is filled; exchanged while the helper waits.
    Batch _batches[2];
    Batch* _current = &_batches[0];
    Batch* _coming = &_batches[1];
    std::counting_semaphore<2> _empty{1};
    std::counting_semaphore<2> _full{0};
    std::atomic<bool> _abandoned{false};
};

}  // namespace corvalen
