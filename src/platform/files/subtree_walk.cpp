// SPDX-License-Identifier: MIT
#include "platform/files/subtree_walk.hpp"

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

namespace corvalen {
namespace {

/// Trees with fewer directories, and looks for waits, than this do not repay a second thread.
constexpr std::uint64_t kDirectoriesAlone = 8;
constexpr std::uint64_t kLooksAlone = 8;
ExtraWorkers extraWorkers;

WalkRest wholeDirectory(UniqueFd directory, std::size_t levelsAbove = 0,
                        std::size_t pathLength = 0) {
    WalkRest whole;
    if (directory) whole.directory = std::make_shared<UniqueFd>(std::move(directory));
    whole.levelsAbove = levelsAbove;
    whole.pathLength = pathLength;
    return whole;
}

class SubtreeWalk {
  public:
    SubtreeWalk(SubtreeVisitor& visitor, const SubtreeOptions& options)
        : _visitor(visitor),
          _options(options),
          _counting(options.counts ? options.walk.cancellation : nullptr),
          _user(options.walk.cancellation != nullptr ? options.walk.cancellation->user() : 0),
          _objects(_counting != nullptr ? _counting->objectCount() : 0) {
        _waiting.reserve(SubtreeOptions::kWaitingDirectories + SubtreeOptions::kMostWorkers);
        _threads.reserve(SubtreeOptions::kMostWorkers);
        _free.reserve(SubtreeOptions::kMostWorkers);
    }

    Result<std::uint64_t> run(UniqueFd top) {
        _waiting.push_back(wholeDirectory(std::move(top)));
        work({.isFirst = true});
        {
            // Running workers may still add others.
            std::unique_lock lock(_mutex);
            _changed.wait(lock, [this] { return _workers == 0; });
        }
        for (std::thread& thread : _threads)
            if (thread.joinable()) thread.join();
        if (const int error = _error) return failure(error);
        return _sum;
    }

  private:
    /// Properties that a worker starts with.
    struct Kind {
        bool isFirst = false;
        /// Charged to the user's share.
        bool isExtra = false;
        /// Waited for the disk before its last look, or was added by a worker that did.
        bool isWaiting = false;
        /// Index of its thread in `_threads`.
        std::size_t slot = 0;
    };

    /// State of one worker, used only by its thread. `switches` is its count of waits at the last
    /// look.
    struct Worker : Kind {
        explicit Worker(const Kind& kind) : Kind(kind) {}

        std::uint64_t sum = 0;
        std::uint64_t unreported = 0;
        long switches = 0;
        /// False if the last look found no wait: an extra worker then ends after its directory.
        bool isNeeded = true;
        /// Lent to its walks; a buffer of their own would cost each a mapping.
        std::unique_ptr<std::byte[]> buffer;
    };

    void work(const Kind& kind) noexcept {
        Worker worker(kind);
        worker.switches = _options.waits();
        try {
            worker.buffer =
                std::make_unique_for_overwrite<std::byte[]>(TreeWalkOptions::kBufferSize);
            WalkRest rest;
            while (takeRest(worker, &rest))
                walkBelow(worker, std::move(rest));
        } catch (const std::exception&) {
            noteFailure(failure(ENOMEM));  // only std::bad_alloc is expected
        }
        leave(worker);
    }

    void walkBelow(Worker& worker, WalkRest rest) {
        TreeWalkOptions options = _options.walk;
        if (worker.isExtra) options.order = TreeWalkOptions::Order::asListed;
        options.largeBatch = options.largeBatch && worker.isFirst;
        options.buffer = worker.buffer.get();
        TreeWalk walk(std::move(rest), options);
        while (_error.load(std::memory_order_relaxed) == 0 &&
               walk.next() == TreeWalk::Step::object) {
            bool enter = walk.entry().type == EntryType::directory;
            Result<> visited = _visitor.visit(walk, &enter, &worker.sum);
            if (visited) ++worker.unreported;
            if (visited && worker.isWaiting) _visitor.warm(walk);
            if (visited && enter) visited = enterOrHandOver(worker, walk);
            noteFailure(visited);
            if (worker.unreported == SubtreeOptions::kObjectsPerLook) {
                look(worker);
                share(worker, walk);
            }
        }
        noteFailure(walk.result());
    }

    /// Adds the second worker for a large directory, and gives a worker without work a part of it.
    void share(Worker& worker, TreeWalk& walk) {
        if (worker.isFirst && ++_looksAlone == kLooksAlone)
            addWorker(SubtreeOptions::kUsualWorkers, /*isWaiting=*/false);
        if (!_wanted.load(std::memory_order_relaxed) || !isQueueEmpty(worker)) return;
        std::optional<WalkRest> entries = walk.giveEntries();
        if (!entries) return;
        const std::unique_lock lock = lockUncounted(worker);
        _waiting.push_back(*std::move(entries));
        _changed.notify_one();
    }

    bool isQueueEmpty(Worker& worker) {
        const std::unique_lock lock = lockUncounted(worker);
        return _waiting.empty();
    }

    Result<> enterOrHandOver(Worker& worker, TreeWalk& walk) {
        Result<UniqueFd> directory = walk.open();
        if (!directory) return _visitor.cannotEnter(directory.error());
        if (worker.isFirst && ++_directoriesAlone == kDirectoriesAlone)
            addWorker(SubtreeOptions::kUsualWorkers, /*isWaiting=*/false);
        if (!_wanted.load(std::memory_order_relaxed)) {
            walk.push(*std::move(directory));
            return {};
        }
        const std::unique_lock lock = lockUncounted(worker);
        _waiting.push_back(wholeDirectory(*std::move(directory), walk.depth(), walk.pathLength()));
        if (_waiting.size() >= SubtreeOptions::kWaitingDirectories - 1)
            _wanted.store(false, std::memory_order_relaxed);
        _changed.notify_one();
        return {};
    }

    /// Waiting for other workers does not count as waiting for the disk.
    std::unique_lock<std::mutex> lockUncounted(Worker& worker) {
        std::unique_lock lock(_mutex, std::try_to_lock);
        if (lock.owns_lock()) return lock;
        const long before = _options.waits();
        lock.lock();
        worker.switches += _options.waits() - before;
        return lock;
    }

    /// Returns false if the queue is empty and no worker can add to it, or if this worker is no
    /// longer needed.
    bool takeRest(Worker& worker, WalkRest* rest) {
        std::unique_lock lock = lockUncounted(worker);
        if (worker.isExtra && !worker.isNeeded) return false;
        ++_idle;
        if (_idle == _workers) _changed.notify_all();
        if (_waiting.empty()) {
            _changed.wait(lock, [this] { return !_waiting.empty() || _idle == _workers; });
            worker.switches = _options.waits();
        }
        --_idle;
        if (_waiting.empty()) return false;
        // The oldest is likely the outermost and largest.
        *rest = std::move(_waiting.front());
        _waiting.erase(_waiting.begin());
        if (_waiting.empty()) _wanted.store(_workers > 1, std::memory_order_relaxed);
        return true;
    }

    void look(Worker& worker) noexcept {
        report(worker);
        if (_options.mostWorkers <= SubtreeOptions::kUsualWorkers) return;
        const long switches = _options.waits();
        worker.isWaiting =
            switches - std::exchange(worker.switches, switches) >= SubtreeOptions::kWaitsPerLook;
        worker.isNeeded = worker.isWaiting;
        if (!worker.isWaiting) return;
        if (_options.waitsFound != nullptr) ++*_options.waitsFound;
        addWorker(_options.mostWorkers, /*isWaiting=*/true);
        worker.switches = _options.waits();  // starting a thread is not waiting for the disk
    }

    void report(Worker& worker) noexcept {
        const std::uint64_t objects = std::exchange(worker.unreported, 0);
        const std::uint64_t before = _objects.fetch_add(objects, std::memory_order_relaxed);
        if (_counting != nullptr) _counting->setObjectCount(before + objects);
    }

    /// Adds a worker unless there are `most`, or the user has his share of extra ones.
    void addWorker(int most, bool isWaiting) noexcept {
        const std::lock_guard lock(_mutex);
        if (_workers >= most) return;
        Kind worker;
        worker.isExtra = _usual >= SubtreeOptions::kUsualWorkers;
        worker.isWaiting = isWaiting;
        if (worker.isExtra && !extraWorkers.take(_user)) return;
        try {
            worker.slot = freeSlot();
            _threads[worker.slot] = std::thread([this, worker] { work(worker); });
        } catch (const std::exception&) {
            // The other workers do the work.
            _free.push_back(worker.slot);
            if (worker.isExtra) extraWorkers.giveBack(_user);
            return;
        }
        ++_workers;
        if (!worker.isExtra) ++_usual;
        _wanted.store(true, std::memory_order_relaxed);
    }

    /// Returns the slot of a thread that has ended, or a new one.
    std::size_t freeSlot() {
        if (_free.empty()) {
            _threads.emplace_back();
            return _threads.size() - 1;
        }
        const std::size_t slot = _free.back();
        _free.pop_back();
        if (_threads[slot].joinable()) _threads[slot].join();
        return slot;
    }

    void leave(Worker& worker) noexcept {
        report(worker);
        const std::lock_guard lock(_mutex);
        _sum = saturatedSum(_sum, worker.sum);
        if (worker.isExtra) extraWorkers.giveBack(_user);
        if (!worker.isFirst) _free.push_back(worker.slot);
        --_workers;
        if (_idle == _workers) _changed.notify_all();
    }

    void noteFailure(const Result<>& result) noexcept {
        int none = 0;
        if (!result) (void)_error.compare_exchange_strong(none, result.error().number);
    }

    SubtreeVisitor& _visitor;
    const SubtreeOptions _options;
    Cancellation* const _counting;  // may be null
    const std::uint32_t _user;
    std::atomic<int> _error{0};
    std::atomic<std::uint64_t> _objects;
    /// True from empty until full again (hysteresis): workers queue several directories at a time.
    std::atomic<bool> _wanted{false};
    // Used by the first worker only.
    std::uint64_t _directoriesAlone = 0;
    std::uint64_t _looksAlone = 0;

    std::mutex _mutex;
    std::condition_variable _changed;
    // Guarded by the mutex.
    std::vector<WalkRest> _waiting;
    std::vector<std::thread> _threads;
    std::vector<std::size_t> _free;  // slots of threads that have ended
    std::uint64_t _sum = 0;
    int _workers = 1;
    int _usual = 1;  // workers started that are not extra, ended ones included
    int _idle = 0;
};

}  // namespace

long SubtreeOptions::waitsOfThread() noexcept {
    rusage usage{};
    ::getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_nvcsw;
}

Result<std::uint64_t> walkSubtrees(UniqueFd top, SubtreeVisitor& visitor,
                                   const SubtreeOptions& options) {
    return SubtreeWalk(visitor, options).run(std::move(top));
}

bool ExtraWorkers::take(std::uint32_t user) noexcept {
    const std::lock_guard lock(_mutex);
    const auto own = std::count(_users.begin(), _users.begin() + _taken, user);
    const auto others = _taken - own;
    if (own >= (kMost - others) / 2) return false;
    _users[static_cast<std::size_t>(_taken++)] = user;
    return true;
}

void ExtraWorkers::giveBack(std::uint32_t user) noexcept {
    const std::lock_guard lock(_mutex);
    const auto end = _users.begin() + _taken;
    const auto found = std::find(_users.begin(), end, user);
    if (found == end) return;
    *found = *(end - 1);
    --_taken;
}

}  // namespace corvalen
