// SPDX-License-Identifier: MIT
// inspect-storagesize
#include "treewalk/storage_size.hpp"

#include <sys/stat.h>

#include <system_error>
#include <thread>
#include <utility>

#include "operations/errors.hpp"
#include "treewalk/directory_enumerator.hpp"
#include "treewalk/searched_folder.hpp"
#include "treewalk/tree_walk_operations.hpp"

namespace corvalen {
namespace {

/// Workers add to the common count this many objects at a time: a shared counter for each object
/// would travel between the processors.
constexpr std::uint64_t kObjectsPerReport = 256;

}  // namespace

StorageSize::StorageSize(UniqueFd folder, Cancellation& cancellation)
    : _cancellation(cancellation) {
    _waiting.reserve(kWaitingFolders);
    _waiting.push_back(std::move(folder));
}

std::optional<std::uint64_t> StorageSize::ofContents(UniqueFd folder, Cancellation& cancellation) {
    StorageSize size(std::move(folder), cancellation);
    std::uint64_t helped = 0;
    std::thread helper;
    try {
        size._workers = 2;
        helper = std::thread([&] { helped = size.work(); });
    } catch (const std::system_error&) {
        size._workers = 1;
        size._wanted = false;
    }
    std::uint64_t sum = size.work();
    if (helper.joinable()) helper.join();
    if (size._failure) std::rethrow_exception(size._failure);
    if (size._wasCancelled) return std::nullopt;
    return sum + helped;
}

std::uint64_t StorageSize::work() noexcept {
    std::uint64_t sum = 0;
    try {
        UniqueFd folder;
        while (takeFolder(&folder))
            sum += sumBelow(std::move(folder));
    } catch (...) {
        const std::lock_guard lock(_mutex);
        _failure = std::current_exception();
        --_workers;
        _changed.notify_all();
    }
    return sum;
}

/// Returns false when nothing waits and no worker is left that could hand anything over.
bool StorageSize::takeFolder(UniqueFd* folder) {
    std::unique_lock lock(_mutex);
    ++_idle;
    if (_idle == _workers) _changed.notify_all();
    _changed.wait(lock, [this] { return !_waiting.empty() || _idle == _workers; });
    if (_waiting.empty()) return false;
    --_idle;
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

std::uint64_t StorageSize::sumBelow(UniqueFd folder) {
    std::uint64_t sum = 0;
    std::uint64_t unreported = 0;
    QRLDirectoryEnumerator walk(std::move(folder), "", false, WalkReach::unbounded, _cancellation);
    walk.setAttributeMask(STATX_SIZE);
    while (walk.next() != nullptr) {
        if (const struct statx* attributes = walk.attributes()) sum += attributes->stx_size;
        if (_wanted.load(std::memory_order_relaxed) && walk.hasEntered())
            handOver(walk.takeEnteredFolder());
        if (++unreported == kObjectsPerReport) report(std::exchange(unreported, 0));
    }
    report(unreported);
    if (walk.wasCancelled()) _wasCancelled = true;
    return sum;
}

void StorageSize::report(std::uint64_t objects) noexcept {
    _cancellation.setObjectCount(_objects.fetch_add(objects, std::memory_order_relaxed) + objects);
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
