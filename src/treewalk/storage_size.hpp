// SPDX-License-Identifier: MIT
// The size of everything below a folder.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <mutex>
#include <optional>
#include <vector>

#include "corvalen/descriptor.hpp"
#include "foundation/cancellation.hpp"

namespace corvalen {

/// Adds up the sizes of all objects below a folder, at any depth and on every file system, with two
/// threads where a second one can be had. Folders that either meets while too few wait are put
/// aside for whoever is free next; at most `kWaitingFolders` wait, each an open descriptor.
class StorageSize {
  public:
    static constexpr std::size_t kWaitingFolders = 32;

    /// The sum of the sizes as lstat(2) gives them; what cannot be examined adds nothing. The
    /// folder's own size is not counted. Nothing when the work was cancelled before its end. Throws
    /// std::bad_alloc.
    [[nodiscard]] static std::optional<std::uint64_t> ofContents(UniqueFd folder,
                                                                 Cancellation& cancellation);

  private:
    StorageSize(UniqueFd folder, Cancellation& cancellation);

    std::uint64_t work() noexcept;
    bool takeFolder(UniqueFd* folder);
    std::uint64_t sumBelow(UniqueFd folder);
    void handOver(UniqueFd folder);
    void report(std::uint64_t objects) noexcept;

    Cancellation& _cancellation;
    std::atomic<std::uint64_t> _objects{0};
    std::atomic<bool> _wasCancelled{false};
    std::mutex _mutex;
    std::condition_variable _changed;
    std::vector<UniqueFd> _waiting;
    /// From when nothing waits until the room is full, so that a handful is taken at a time.
    std::atomic<bool> _wanted{true};
    std::exception_ptr _failure;
    int _workers = 1;
    int _idle = 0;
};

}  // namespace corvalen
