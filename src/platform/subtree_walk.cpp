// SPDX-License-Identifier: MIT
#include "platform/subtree_walk.hpp"

#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace corvalen {
namespace {

/// Trees with fewer directories than this do not repay a second thread.
constexpr std::uint64_t kDirectoriesAlone = 8;
/// Workers add to the common count, and look whether they wait, after this many objects.
constexpr std::uint64_t kObjectsPerReport = 128;
/// A worker that gave up the processor this often within a report waits for the disk.
constexpr long kWaitsPerReport = 2;

/// Workers of all walks of the process beyond the usual ones.
constexpr int kMostExtraWorkers = 28;
std::atomic<int> extraWorkers{0};

class SubtreeWalk {
  public:
    SubtreeWalk(SubtreeVisitor& visitor, const SubtreeOptions& options)
        : _visitor(visitor),
          _options(options),
          _counting(options.counts ? options.walk.cancellation : nullptr),
          _objects(_counting != nullptr ? _counting->objectCount() : 0) {
        _waiting.reserve(SubtreeOptions::kWaitingDirectories + SubtreeOptions::kMostWorkers);
        _threads.reserve(SubtreeOptions::kMostWorkers);
    }

    SubtreeResult run(UniqueFd top) {
        _waiting.push_back(std::move(top));
        work(/*isFirst=*/true);
        {
            // Those that are at work may still add others.
            std::unique_lock lock(_mutex);
            _changed.wait(lock, [this] { return _workers == 0; });
        }
        for (std::thread& thread : _threads)
            thread.join();
        return {_error, _sum};
    }

  private:
    /// What one thread has done and not yet reported, and how often it had waited by then.
    struct Worker {
        std::uint64_t sum = 0;
        std::uint64_t unreported = 0;
        long waits = 0;
        bool waitsForDisk = true;
        bool isFirst = false;
    };

    void work(bool isFirst) noexcept {
        Worker worker;
        worker.isFirst = isFirst;
        worker.waits = _options.waits();
        try {
            UniqueFd directory;
            while (takeDirectory(worker, &directory))
                walkBelow(worker, std::move(directory));
        } catch (const std::exception&) {
            noteFailure(ENOMEM);  // nothing else is thrown
        }
        leave(worker);
    }

    void walkBelow(Worker& worker, UniqueFd directory) {
        TreeWalk walk(std::move(directory), _options.walk);
        while (_error.load(std::memory_order_relaxed) == 0 &&
               walk.next() == TreeWalk::Step::object) {
            bool enter = walk.entry().type == EntryType::directory;
            int error = _visitor.visit(walk, &enter, &worker.sum);
            if (error == 0) ++worker.unreported;
            if (error == 0 && enter) error = enterOrHandOver(worker, walk);
            noteFailure(error);
            if (worker.unreported == kObjectsPerReport) lookForWaits(worker);
        }
        noteFailure(walk.error());
    }

    int enterOrHandOver(Worker& worker, TreeWalk& walk) {
        UniqueFd directory = walk.open();
        if (!directory) return _visitor.cannotEnter(errno);
        if (worker.isFirst && ++_directoriesAlone == kDirectoriesAlone)
            addWorker(SubtreeOptions::kUsualWorkers);
        if (!_wanted.load(std::memory_order_relaxed)) {
            walk.push(std::move(directory));
            return 0;
        }
        const std::lock_guard lock(_mutex);
        _waiting.push_back(std::move(directory));
        if (_waiting.size() >= SubtreeOptions::kWaitingDirectories - 1)
            _wanted.store(false, std::memory_order_relaxed);
        _changed.notify_one();
        return 0;
    }

    /// Returns false when nothing waits and no worker is left that could hand anything over, and
    /// when the worker is not needed any more.
    bool takeDirectory(Worker& worker, UniqueFd* directory) {
        std::unique_lock lock(_mutex);
        const bool isExtra = _workers > SubtreeOptions::kUsualWorkers;
        if (!worker.isFirst && !worker.waitsForDisk && isExtra) return false;
        ++_idle;
        if (_idle == _workers) _changed.notify_all();
        if (_waiting.empty()) {
            _changed.wait(lock, [this] { return !_waiting.empty() || _idle == _workers; });
            worker.waits = _options.waits();
        }
        --_idle;
        if (_waiting.empty()) return false;
        // The one that waited longest is the outermost and likely the largest.
        *directory = std::move(_waiting.front());
        _waiting.erase(_waiting.begin());
        if (_waiting.empty()) _wanted.store(_workers > 1, std::memory_order_relaxed);
        return true;
    }

    void lookForWaits(Worker& worker) noexcept {
        report(worker);
        if (_options.mostWorkers <= SubtreeOptions::kUsualWorkers) return;
        const long waits = _options.waits();
        worker.waitsForDisk = waits - worker.waits >= kWaitsPerReport;
        worker.waits = waits;
        if (worker.waitsForDisk) addWorker(_options.mostWorkers);
    }

    void report(Worker& worker) noexcept {
        const std::uint64_t objects = std::exchange(worker.unreported, 0);
        const std::uint64_t before = _objects.fetch_add(objects, std::memory_order_relaxed);
        if (_counting != nullptr) _counting->setObjectCount(before + objects);
    }

    void addWorker(int most) noexcept {
        const std::lock_guard lock(_mutex);
        const bool isExtra = _workers >= SubtreeOptions::kUsualWorkers;
        if (_workers >= most) return;
        if (isExtra && extraWorkers.fetch_add(1) >= kMostExtraWorkers) {
            --extraWorkers;
            return;
        }
        ++_workers;
        try {
            _threads.emplace_back([this] { work(/*isFirst=*/false); });
        } catch (const std::exception&) {
            // Then the others do it all.
            --_workers;
            if (isExtra) --extraWorkers;
        }
        _wanted.store(_workers > 1, std::memory_order_relaxed);
    }

    void leave(Worker& worker) noexcept {
        report(worker);
        const std::lock_guard lock(_mutex);
        _sum += worker.sum;
        if (_workers > SubtreeOptions::kUsualWorkers) --extraWorkers;
        --_workers;
        if (_idle == _workers) _changed.notify_all();
    }

    void noteFailure(int error) noexcept {
        int none = 0;
        if (error != 0) (void)_error.compare_exchange_strong(none, error);
    }

    SubtreeVisitor& _visitor;
    const SubtreeOptions _options;
    Cancellation* const _counting;  // may be null
    std::atomic<int> _error{0};
    std::atomic<std::uint64_t> _objects;
    /// True from nothing waiting until the queue is full, so that a handful is taken at a time.
    std::atomic<bool> _wanted{false};
    std::uint64_t _directoriesAlone = 0;  // the first worker's

    std::mutex _mutex;
    std::condition_variable _changed;
    // Guarded by the mutex.
    std::vector<UniqueFd> _waiting;
    std::vector<std::thread> _threads;
    std::uint64_t _sum = 0;
    int _workers = 1;
    int _idle = 0;
};

}  // namespace

long SubtreeOptions::waitsOfThread() noexcept {
    rusage usage{};
    ::getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_nvcsw;
}

SubtreeResult walkSubtrees(UniqueFd top, SubtreeVisitor& visitor, const SubtreeOptions& options) {
    return SubtreeWalk(visitor, options).run(std::move(top));
}

}  // namespace corvalen
