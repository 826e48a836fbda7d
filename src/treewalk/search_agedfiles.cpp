// SPDX-License-Identifier: MIT
// search-agedfiles: finds all objects below a directory, directories too, that were modified at
// least a number of days ago. Arguments: directory (S); days of 86,400 seconds (N, unsigned); stay
// on its file system (N, a Boolean). The fraction is 0 until the end.
#include <ctime>

#include "fileops/file_object_info.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "treewalk/search.hpp"
#include "treewalk/tree_walk_operations.hpp"
#include "treewalk/walk_ahead.hpp"

namespace corvalen {
namespace {

constexpr double kSecondsOfDay = 86400;
constexpr double kNanosecond = 1e-9;

/// Seconds since `time`; negative if it is in the future.
double secondsSince(const struct statx_timestamp& time) noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec) - static_cast<double>(time.tv_sec) +
           (static_cast<double>(now.tv_nsec) - static_cast<double>(time.tv_nsec)) * kNanosecond;
}

}  // namespace

ErrorRef TreeWalkOperations::performOperationSearchAgedfilesWithArguments(
    const Array& arguments, FeedbackConnection* feedbackConnection) {
    Result<SearchedFolder, ErrorRef> folder = openSearchedFolder(arguments);
    if (!folder) return folder.error();
    const double threshold =
        static_cast<double>(numberArgument(arguments, 1).unsignedIntegerValue()) * kSecondsOfDay;
    const bool stayOnFileSystem = numberArgument(arguments, 2).boolValue();

    FindBatch batch(feedbackConnection);
    WalkAhead walk(*std::move(folder), stayOnFileSystem, fileObjectInfoStatxMask());
    walk.setBeforeWait([&batch] { batch.flush(); });
    while (const WalkAhead::Object* object = walk.next()) {
        const struct statx* attributes = walk.attributes();
        if (attributes != nullptr && secondsSince(attributes->stx_mtime) >= threshold)
            batch.add(object->path(), attributes);
        batch.sendIfFull(0.0);
    }
    if (walk.wasCancelled()) return cancelledError(currentCancellation());
    batch.send(1.0);
    return nullptr;
}

}  // namespace corvalen
