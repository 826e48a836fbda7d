// SPDX-License-Identifier: MIT
// The directory that a search walks, the count of its objects, and the batches of finds that it
// sends.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "corvalen/descriptor.hpp"
#include "corvalen/error.hpp"
#include "corvalen/value.hpp"
#include "foundation/result.hpp"
#include "operations/operation_rows.hpp"

struct statx;

namespace corvalen {

/// An open directory and its path without symlinks.
struct SearchedFolder {
    std::string path;
    /// Empty if the directory cannot be opened: walks of it are empty.
    UniqueFd descriptor;
};

/// Resolves the symlinks in `path` and opens the directory. POSIX 22 for an empty path, 2 if the
/// path leads nowhere, 20 if not to a directory. Does not follow a symlink that is put into the
/// resolved path meanwhile.
[[nodiscard]] Result<SearchedFolder, ErrorRef> openSearchedFolder(std::string_view path);

/// The same for the first argument of an operation.
[[nodiscard]] Result<SearchedFolder, ErrorRef> openSearchedFolder(const Array& arguments);

/// Returns whether a search wants an object of this name. Several threads call it at once.
using NameFilter = std::function<bool(std::string_view name)>;

/// Maximum number of finds in one message.
inline constexpr std::size_t kFindBatchSize = 20;

/// Collects file object info records and sends them in batches. Builds none without a connection.
class FindBatch {
  public:
    /// The connection is borrowed and may be null.
    explicit FindBatch(FeedbackConnection* connection);

    /// Adds the record of an object; ignores null `attributes` (the object could not be examined).
    /// They must hold the fields of `fileObjectInfoStatxMask`.
    void add(std::string path, const struct statx* attributes);

    [[nodiscard]] bool isFull() const noexcept { return _records.size() >= kFindBatchSize; }
    /// Sends the collected records, even if there are none.
    void send(double fraction);
    /// Call at each object. Sends a full batch; if one was sent less than `kLongestDelay` before,
    /// keeps it up to that time and the next multiple of `kObjectsPerLook` objects.
    void sendIfFull(double fraction) {
        if (isFull()) return sendLater(fraction);
        if (_isKeeping && ++_objects % kObjectsPerLook == 0) flushOld();
    }
    /// Sends what is kept. Call before anything that may wait.
    void flush();

  private:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds kLongestDelay{5};
    static constexpr unsigned kObjectsPerLook = 16;

    Dictionary takeMessage(double fraction);
    void sendLater(double fraction);
    void flushOld();

    FeedbackConnection* _connection;
    Array _records;
    Clock::time_point _lastSent;
    bool _isKeeping = false;
    unsigned _objects = 0;
};

struct ObjectCount {
    std::uint64_t objects = 0;
    /// Whether none of them is special (DescentRules::isSpecial).
    bool arePlain = false;
    /// Estimate of how many of them the filter accepts.
    std::uint64_t wanted = 0;
};

/// Returns how many objects a QRLDirectoryEnumerator returns below the folder; std::nullopt if the
/// current cancellation was requested. Counts out of order; falls back to the enumerator where that
/// does more than open directories. Threads that wait for the disk also examine the objects that
/// the filter accepts, so that the search finds them in memory. Throws std::bad_alloc.
std::optional<ObjectCount> countObjects(const SearchedFolder& folder, bool stayOnFileSystem,
                                        unsigned attributeMask, const NameFilter& filter);

}  // namespace corvalen
