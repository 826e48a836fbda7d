// SPDX-License-Identifier: MIT
#include "treewalk/split_walk.hpp"

#include <iterator>
#include <memory>
#include <utility>

namespace corvalen {
namespace {

/// A batch is handed over with this many objects or bytes of paths, and in the first segment also
/// after this many objects of the walk.
constexpr std::size_t kFindsPerBatch = 512;
constexpr std::size_t kTextPerBatch = std::size_t{64} * 1024;
constexpr std::uint64_t kWalkedPerBatch = 4096;
/// Batches of the first segment that may wait for the caller.
constexpr std::size_t kMostReady = 2;

}  // namespace

SplitWalk::SplitWalk(SearchedFolder& folder, bool stayOnFileSystem, unsigned mask,
                     const NameFilter& filter)
    : _rules(folder.descriptor, folder.path, stayOnFileSystem), _mask(mask), _filter(filter) {
    Segment& whole = _segments.emplace_back();
    whole.rest.path = folder.path;
    whole.rest.directory = std::make_shared<UniqueFd>();
    _front = &whole;
    _threads.reserve(kThreads);
    {
        const Lock lock(_mutex);  // the thread waits until the segment is whole
        _threads.emplace_back([this] { work(); });
        *whole.rest.directory = std::move(folder.descriptor);
    }
    try {
        _threads.emplace_back([this] { work(); });
    } catch (const std::exception&) {
        // The first one does all the work.
    }
}

SplitWalk::~SplitWalk() {
    {
        const std::lock_guard lock(_mutex);
        _isAbandoned = true;
    }
    _changed.notify_all();
    for (std::thread& thread : _threads)
        thread.join();
}

void SplitWalk::work() noexcept {
    std::unique_ptr<std::byte[]> buffer;
    while (Segment* const segment = takeSegment()) {
        try {
            if (!buffer)
                buffer = std::make_unique_for_overwrite<std::byte[]>(TreeWalkOptions::kBufferSize);
            walkSegment(*segment, buffer.get());
        } catch (...) {
            end(*segment, 0, false, std::current_exception());
        }
    }
}

/// Waits for a segment without a thread; null once there will be none.
SplitWalk::Segment* SplitWalk::takeSegment() {
    Lock lock(_mutex);
    for (;;) {
        bool isWalking = false;
        for (Segment& segment : _segments) {
            if (segment.hasThread) {
                isWalking = isWalking || !segment.hasEnded;
                continue;
            }
            segment.hasThread = true;
            return &segment;
        }
        if (!isWalking || _isAbandoned) return nullptr;
        _isWanted.store(true, std::memory_order_relaxed);
        _changed.wait(lock);
    }
}

void SplitWalk::walkSegment(Segment& segment, std::byte* buffer) {
    QRLDirectoryEnumerator walk(std::move(segment.rest), _rules, _cancellation, buffer);
    walk.setAttributeMask(_mask);
    Batch batch;
    std::uint64_t walked = 0;
    while (const WalkEntry* entry =
               _isAbandoned.load(std::memory_order_relaxed) ? nullptr : walk.next()) {
        const struct statx* attributes = nullptr;
        if (_filter(entry->name) && (attributes = walk.attributes()) != nullptr) {
            const std::string_view path = walk.currentAbsolutePathForDirectoryEntry();
            batch.finds.push_back({batch.texts.size(), path.size(), walked});
            batch.texts.append(path);
            batch.examined.push_back(*attributes);
        }
        ++walked;
        if (_isWanted.load(std::memory_order_relaxed)) split(segment, walk);
        const bool isFull =
            batch.finds.size() == kFindsPerBatch || batch.texts.size() >= kTextPerBatch;
        const bool isAwaited =
            walked % kWalkedPerBatch == 0 && _front.load(std::memory_order_relaxed) == &segment;
        if (!isFull && !isAwaited) continue;
        batch.walked = walked;
        handOver(segment, batch);
    }
    batch.walked = walked;
    handOver(segment, batch);
    end(segment, walked, walk.wasCancelled(), nullptr);
}

/// Makes a segment of the last part of the walk.
void SplitWalk::split(const Segment& segment, QRLDirectoryEnumerator& walk) {
    std::optional<WalkRest> rest = walk.giveRest();
    if (!rest) return;
    const Lock lock(_mutex);
    auto place = _segments.begin();
    while (&*place != &segment)
        ++place;
    _segments.emplace(std::next(place))->rest = *std::move(rest);
    _isWanted.store(false, std::memory_order_relaxed);
    _changed.notify_all();
}

/// Waits for space, unless the caller wants no more. Leaves an empty batch.
void SplitWalk::handOver(Segment& segment, Batch& batch) {
    Lock lock(_mutex);
    _changed.wait(lock, [&] {
        const bool isFront = &segment == &_segments.front();
        return _isAbandoned ||
               (isFront ? segment.ready.size() < kMostReady : _waiting < kMostWaiting);
    });
    segment.ready.push_back(std::move(batch));
    ++_waiting;
    batch = {};
    if (!_unused.empty()) {
        batch = std::move(_unused.back());
        _unused.pop_back();
    }
    _changed.notify_all();
}

void SplitWalk::end(Segment& segment, std::uint64_t walked, bool wasCancelled,
                    std::exception_ptr failure) {
    const Lock lock(_mutex);
    segment.walked = walked;
    segment.wasCancelled = wasCancelled;
    segment.failure = std::move(failure);
    segment.hasEnded = true;
    _changed.notify_all();
}

const SplitWalk::Object* SplitWalk::next() {
    if (_taken > 0) _cancellation.setObjectCount(_object.index + 1);
    while (_taken == _current.finds.size()) {
        if (_beforeWait) _beforeWait();
        _cancellation.setObjectCount(_walkedBefore + _current.walked);
        if (!takeBatch()) return nullptr;
    }
    _wasCancelled = _cancellation.requested();
    if (_wasCancelled) return nullptr;
    const Batch::Find& find = _current.finds[_taken++];
    _object.text = std::string_view(_current.texts).substr(find.textBegin, find.textSize);
    _object.index = _walkedBefore + find.index;
    return &_object;
}

/// Waits for the next batch; returns false at the end of the walk.
bool SplitWalk::takeBatch() {
    Lock lock(_mutex);
    _current.finds.clear();
    _current.examined.clear();
    _current.texts.clear();
    _taken = 0;
    _unused.push_back(std::move(_current));
    _current = {};
    for (;;) {
        Segment& front = _segments.front();
        if (!front.ready.empty()) {
            _current = std::move(front.ready.front());
            front.ready.pop_front();
            --_waiting;
            _changed.notify_all();
            return true;
        }
        if (!front.hasEnded) {
            _changed.wait(lock);
        } else if (!endFront()) {
            return false;
        }
    }
}

/// Goes on to the next segment; returns false if this was the last one. Call with the lock held.
bool SplitWalk::endFront() {
    Segment& front = _segments.front();
    if (front.failure) std::rethrow_exception(front.failure);
    _wasCancelled = front.wasCancelled;
    if (_wasCancelled || _segments.size() == 1) return false;
    _walkedBefore += front.walked;
    _segments.pop_front();
    _front = &_segments.front();
    _changed.notify_all();
    return true;
}

}  // namespace corvalen
