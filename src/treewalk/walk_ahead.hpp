// SPDX-License-Identifier: MIT
// A walk whose folders are read ahead by a second thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <semaphore>
#include <string_view>
#include <thread>
#include <vector>

#include "foundation/cancellation.hpp"
#include "treewalk/directory_enumerator.hpp"
#include "treewalk/lazy_attributes.hpp"
#include "treewalk/searched_folder.hpp"

namespace corvalen {

/// Hands out the objects of a QRLDirectoryEnumerator in its order. Once the tree turns out to be
/// large a second thread lists and opens the folders ahead, where one can be had; what is asked of
/// an object, and done to it, is done in its turn by the caller's thread. Holds two batches, with
/// at most `kBatchFolders` more descriptors each.
///
/// Reports to the current cancellation of the thread that makes it how many objects of the walk
/// its caller is done with. When that is requested, both threads end before their next object.
///
/// Used by one thread. Throws what the walk throws.
class WalkAhead {
  public:
    static constexpr std::size_t kBatchObjects = 512;
    static constexpr std::size_t kBatchFolders = 128;

    /// Tells by its name whether an object is wanted; called by the thread that reads ahead.
    using Filter = std::function<bool(std::string_view name)>;

    /// Walks within the limits of a bounded walk. `attributeMask`: the fields of statx(2) that
    /// `attributes` is to know. With a filter, all that it does not want is walked but not given.
    WalkAhead(SearchedFolder folder, bool stayOnFileSystem, unsigned attributeMask,
              Filter filter = {});
    WalkAhead(const WalkAhead&) = delete;
    WalkAhead& operator=(const WalkAhead&) = delete;
    /// A walk that was not finished ends here, before its next object.
    ~WalkAhead();

    /// An object of the walk; valid until the next step. The texts are NUL-terminated.
    struct Object {
        std::string_view path;
        std::string_view name;
        EntryType type = EntryType::unknown;
        /// The open folder that holds it.
        int parent = -1;
        /// The folder itself where it is one and the walk has entered it, else -1.
        int entered = -1;
        /// Objects of the walk before it, those that were not given included.
        std::uint64_t index = 0;
        /// The place of what the walk had to ask the object, else `kNotExamined`.
        std::uint32_t examined = kNotExamined;
    };
    static constexpr std::uint32_t kNotExamined = UINT32_MAX;

    /// The next object, or null when the walk is over.
    const Object* next();
    /// Whether the walk was cancelled before its end; to be asked when it is over.
    [[nodiscard]] bool wasCancelled() const noexcept { return _wasCancelled; }
    /// Of the object that `next` gave: its own attributes (a link's, not its target's); null with
    /// errno when it cannot be examined.
    const struct statx* attributes() noexcept {
        return _attributes.read(_object->parent, _object->name.data(), _object->entered, _mask);
    }
    /// The next question for attributes looks at the object again.
    void forgetAttributes() noexcept { _attributes.forget(); }

  private:
    struct Batch {
        std::vector<Object> objects;
        std::vector<char> texts;
        std::vector<struct statx> examined;
        /// Keeps the descriptors of the objects open.
        std::vector<SharedFolder> folders;
        /// Objects of the walk up to its end, those that are not given included.
        std::uint64_t walked = 0;
        bool isLast = false;
        bool wasCancelled = false;
        std::exception_ptr failure;
    };

    void turnToNextBatch();
    void startHelper() noexcept;
    void readAhead() noexcept;
    void fill(Batch& batch);
    void append(Batch& batch, const QRLDirectoryEnumerator::Entry& entry);
    int hold(Batch& batch, const SharedFolder& folder);

    Cancellation& _cancellation = currentCancellation();
    // The second thread's once there is one.
    QRLDirectoryEnumerator _walk;
    const Filter _filter;
    std::uint64_t _walked = 0;
    // The caller's.
    const unsigned _mask;
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
