// SPDX-License-Identifier: MIT
// inspect-storagesize
#include "treewalk/storage_size.hpp"

#include <sys/resource.h>
#include <sys/stat.h>

#include <system_error>
#include <utility>

#include "operations/errors.hpp"
#include "treewalk/directory_enumerator.hpp"
#include "treewalk/searched_folder.hpp"
#include "treewalk/tree_walk_operations.hpp"

namespace corvalen {
namespace {

/// Workers add to the common count, and look whether they wait, after this many objects.
constexpr std::uint64_t kObjectsPerReport = 128;

/// A worker that gave up the processor this often within a report waits for the disk.
constexpr long kWaitsPerReport = 2;

std::atomic<int> extraWorkers{0};

}  // namespace

long StorageSize::waitsOfThread() noexcept {
    rusage usage{};
    ::getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_nvcsw;
}

StorageSize::StorageSize(UniqueFd folder, Cancellation& cancellation, WaitCounter waits)
    : _cancellation(cancellation), _waits(waits) {
    _waiting.reserve(kWaitingFolders + kMostWorkers);
    _waiting.push_back(std::move(folder));
    _threads.reserve(kMostWorkers);
}

std::optional<std::uint64_t> StorageSize::ofContents(UniqueFd folder, Cancellation& cancellation,
                                                     WaitCounter waits) {
    StorageSize size(std::move(folder), cancellation, waits);
    size.addWorker();
    size.work(/*mayLeaveEarly=*/false);
    size.joinAll();
    if (size._failure) std::rethrow_exception(size._failure);
    if (size._wasCancelled) return std::nullopt;
    return size._sum;
}

void StorageSize::work(bool mayLeaveEarly) noexcept {
    Worker worker;
    worker.mayLeaveEarly = mayLeaveEarly;
    worker.waits = _waits();
    try {
        UniqueFd folder;
        while (takeFolder(worker, &folder))
            sumBelow(worker, std::move(folder));
    } catch (...) {
        const std::lock_guard lock(_mutex);
        _failure = std::current_exception();
    }
    leave(worker);
}

/// Returns false when nothing waits and no worker is left that could hand anything over, and when
/// the worker is not needed any more.
bool StorageSize::takeFolder(Worker& worker, UniqueFd* folder) {
    std::unique_lock lock(_mutex);
    if (worker.mayLeaveEarly && !worker.waitsForDisk && _workers > kUsualWorkers) return false;
    ++_idle;
    if (_idle == _workers) _changed.notify_all();
    if (_waiting.empty()) {
        _changed.wait(lock, [this] { return !_waiting.empty() || _idle == _workers; });
        worker.waits = _waits();
    }
    --_idle;
    if (_waiting.empty()) return false;
    // The one that waited longest is the outermost and likely the largest.
    *folder = std::move(_waiting.front());
    _waiting.erase(_waiting.begin());
    if (_waiting.empty()) _wanted.store(_workers > 1, std::memory_order_relaxed);
    return true;
}

void StorageSize::handOver(UniqueFd folder) {
    const std::lock_guard lock(_mutex);
    _waiting.push_back(std::move(folder));
    if (_waiting.size() >= kWaitingFolders - 1) _wanted.store(false, std::memory_order_relaxed);
    _changed.notify_one();
}

void StorageSize::sumBelow(Worker& worker, UniqueFd folder) {
    QRLDirectoryEnumerator walk(std::move(folder), "", false, WalkReach::unbounded, _cancellation);
    walk.setAttributeMask(STATX_SIZE);
    while (walk.next() != nullptr) {
        if (const struct statx* attributes = walk.attributes()) worker.sum += attributes->stx_size;
        if (_wanted.load(std::memory_order_relaxed) && walk.hasEntered())
            handOver(walk.takeEnteredFolder());
        if (++worker.unreported == kObjectsPerReport) lookForWaits(worker);
    }
    if (walk.wasCancelled()) _wasCancelled = true;
}

void StorageSize::lookForWaits(Worker& worker) noexcept {
    report(worker);
    const long waits = _waits();
    worker.waitsForDisk = waits - worker.waits >= kWaitsPerReport;
    worker.waits = waits;
    if (worker.waitsForDisk) addWorker();
}

void StorageSize::report(Worker& worker) noexcept {
    const std::uint64_t objects = std::exchange(worker.unreported, 0);
    _cancellation.setObjectCount(_objects.fetch_add(objects, std::memory_order_relaxed) + objects);
}

void StorageSize::addWorker() noexcept {
    const std::lock_guard lock(_mutex);
    const bool isExtra = _workers >= kUsualWorkers;
    if (_workers == kMostWorkers) return;
    if (isExtra && extraWorkers.fetch_add(1) >= kMostExtraWorkers) {
        --extraWorkers;
        return;
    }
    ++_workers;
    try {
        _threads.emplace_back([this] { work(/*mayLeaveEarly=*/true); });
    } catch (const std::exception&) {
        // Then the others do it all.
        --_workers;
        if (isExtra) --extraWorkers;
    }
    _wanted.store(_workers > 1, std::memory_order_relaxed);
}

void StorageSize::leave(Worker& worker) noexcept {
    report(worker);
    const std::lock_guard lock(_mutex);
    _sum += worker.sum;
    if (_workers > kUsualWorkers) --extraWorkers;
    --_workers;
    if (_idle == _workers) _changed.notify_all();
}

void StorageSize::joinAll() {
    std::unique_lock lock(_mutex);
    // The threads that are joined may have added others.
    while (!_threads.empty()) {
        std::vector<std::thread> threads = std::exchange(_threads, {});
        lock.unlock();
        for (std::thread& thread : threads)
            thread.join();
        lock.lock();
    }
}

ErrorRef TreeWalkOperations::performOperationInspectStoragesizeWithArguments(
    const Array& arguments) {
    SearchedFolder folder;
    if (ErrorRef error = openSearchedFolder(arguments, &folder)) return error;
    const auto size = StorageSize::ofContents(std::move(folder.descriptor), currentCancellation());
    if (!size) return cancelledError(currentCancellation());
    return makeOperationAnswer(kKeyObjectSize, *size);
}

}  // namespace corvalen
