// SPDX-License-Identifier: MIT
// An ordered walk with a second thread that reads directories ahead, and with threads that run
// ahead of both and read from the disk what they will need.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <semaphore>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "foundation/borrowed_descriptor.hpp"
#include "platform/files/subtree_walk.hpp"
#include "treewalk/directory_enumerator.hpp"
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

/// Returns the objects of a QRLDirectoryEnumerator in its order. On a large tree a second thread,
/// if one can be started, lists and opens directories ahead, and examines objects ahead until the
/// caller needs them. The caller's thread examines the others and changes objects one by one. Holds
/// two batches, each with at most `kBatchFolders` more descriptors. While either thread waits for
/// the disk, a CacheWarmer runs ahead.
///
/// Uses the current cancellation of the thread that creates it: sets its object count to the
/// objects that the caller has finished. A request ends both threads before their next object.
///
/// For one thread. Throws what the walk throws.
class WalkAhead {
  public:
    static constexpr std::size_t kBatchObjects = 512;
    static constexpr std::size_t kBatchFolders = 128;

    /// `attributeMask`: the fields of statx(2) that attributes() must have. Objects that the filter
    /// rejects are walked but not returned. `waits` is SubtreeOptions::waits.
    WalkAhead(SearchedFolder folder, bool stayOnFileSystem, unsigned attributeMask,
              const NameFilter& filter = {},
              long (*waits)() noexcept = SubtreeOptions::waitsOfThread);
    WalkAhead(const WalkAhead&) = delete;
    WalkAhead& operator=(const WalkAhead&) = delete;
    /// Ends an unfinished walk before its next object.
    ~WalkAhead();

    /// An object of the walk; valid until the next step.
    struct Object {
        /// Path of its directory, with the separator after it.
        std::string_view folder;
        std::string_view name;  // NUL-terminated
        EntryType type = EntryType::unknown;
        /// The directory that holds it.
        Descriptor parent;
        /// The object itself if the walk has entered it.
        Descriptor entered;
        /// Number of objects before it, including those not returned.
        std::uint64_t index = 0;
        /// Number of levels down to its directory, and to the innermost one after it: one more if
        /// the walk has entered it.
        std::uint32_t depth = 0;
        std::uint32_t innermostDepth = 0;
        /// Index of its attributes in the batch if they were read ahead, else `kNotExamined`.
        std::uint32_t examined = kNotExamined;
        /// The answer of the walk's test if it was asked ahead.
        std::optional<bool> answer;

        [[nodiscard]] std::string path() const { return std::string(folder).append(name); }
        /// Uses the descriptor of an entered directory, which saves the look-up of its name.
        [[nodiscard]] ObjectAddress address() const noexcept {
            if (entered) return {entered};
            return {parent, name.data()};
        }
    };
    static constexpr std::uint32_t kNotExamined = UINT32_MAX;

    /// Makes attributes() examine each object when it is called, for callers that change what
    /// others may replace meanwhile. Call before the first next().
    void examineLate() noexcept { _examinesLate = true; }
    /// Sets what next() calls before it waits for the second thread or lists directories.
    void setBeforeWait(std::function<void()> action) { _beforeWait = std::move(action); }
    /// A question about an object that system calls answer. Both threads may ask it.
    using Test = bool (*)(const ObjectAddress& object, const struct statx& attributes);
    /// Sets the question that passesTest() asks. Call before the first next().
    void setTest(Test test) noexcept { _test = test; }
    /// Returns the next object, or null at the end.
    const Object* next();
    /// Like QRLDirectoryEnumerator::skipDescendents() right after the object that next() returned.
    void skipDescendents() noexcept { _skippedDepth = _object->innermostDepth; }
    /// After the end: whether a cancellation ended the walk.
    [[nodiscard]] bool wasCancelled() const noexcept { return _wasCancelled; }
    /// Returns the attributes of the object that next() returned (a link's, not its target's); null
    /// with errno.
    const struct statx* attributes() noexcept {
        return _taken <= kSamples ? sampledAttributes() : readAttributes();
    }
    /// Returns the test's answer for the object whose attributes() were returned.
    bool passesTest() noexcept {
        return _object->answer ? *_object->answer : _test(_object->address(), *_attributes.known());
    }
    /// Makes the next attributes() examine the object again.
    void forgetAttributes() noexcept { _attributes.forget(); }

  private:
    /// Objects at the start of a batch whose attributes() is checked for waits.
    static constexpr std::size_t kSamples = 4;

    struct Batch {
        std::vector<Object> objects;
        std::vector<char> texts;
        std::vector<struct statx> examined;
        /// Keeps the descriptors of the objects open.
        std::vector<SharedDirectory> folders;
        /// Objects of the walk up to the end of the batch, including those not returned.
        std::uint64_t walked = 0;
        /// Depth of the outermost object in the batch, including those not returned.
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
    void examine(Batch& batch);
    void append(Batch& batch, const WalkEntry& entry);
    void setFolder(Batch& batch, Object& object, std::size_t nameSize);
    Descriptor hold(Batch& batch, const SharedDirectory& folder);

    Cancellation& _cancellation = currentCancellation();
    // Used by the second thread once it runs.
    CacheWarmer _warmer;
    QRLDirectoryEnumerator _walk;
    const NameFilter _filter;
    std::uint64_t _walked = 0;
    /// Levels from this one on are closed before the next batch is filled; 0 for none.
    std::size_t _closedFrom = 0;
    const unsigned _mask;
    bool _examinesLate = false;
    Test _test = nullptr;
    std::function<void()> _beforeWait;
    // Used by the caller's thread.
    long (*const _waits)() noexcept;
    /// Objects in levels from this one on are not returned; 0 for none.
    std::size_t _skippedDepth = 0;
    const Object* _object = nullptr;
    LazyAttributes _attributes;
    std::size_t _taken = 0;
    bool _wasCancelled = false;
    std::size_t _batchesAlone = 0;
    std::thread _helper;
    // The caller reads one, the helper fills the other; swapped while the helper waits.
    Batch _batches[2];
    Batch* _current = &_batches[0];
    Batch* _coming = &_batches[1];
    std::counting_semaphore<2> _empty{1};
    std::counting_semaphore<2> _full{0};
    /// Whether the caller waits for the coming batch.
    std::atomic<bool> _awaited{false};
    std::atomic<bool> _abandoned{false};
};

}  // namespace corvalen
