// SPDX-License-Identifier: MIT
// delete-fileobjects: removes objects, locked ones too; file_operations.cpp removes each.
// Arguments: recursive and stop at first error ("0" or "1", S), paths (S...). Without stop at first
// error it succeeds even if nothing could be removed.
#include <cerrno>

#include "fileops/file_operations.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"

namespace corvalen {
namespace {

constexpr std::size_t kPathsFrom = 2;  // after the two flags

}  // namespace

ErrorRef FileOperations::performOperationDeleteFileobjectsWithArguments(
    const Array& arguments, FeedbackConnection* feedbackConnection) {
    if (arguments.size() <= kPathsFrom) return makePosixError(EINVAL);
    bool recursive = false;
    bool stopOnFirstError = false;
    // Any text but "0" and "1" leaves its flag false.
    (void)getBool(&recursive, arguments[0].string());
    (void)getBool(&stopOnFirstError, arguments[1].string());
    const Array paths(arguments.begin() + kPathsFrom, arguments.end());
    return deleteFileSystemObjectsAtPaths(paths, recursive, stopOnFirstError, feedbackConnection);
}

ErrorRef FileOperations::deleteFileSystemObjectsAtPaths(const Array& paths, bool recursive,
                                                        bool stopOnFirstError,
                                                        FeedbackConnection* feedbackConnection) {
    Cancellation& cancellation = currentCancellation();
    for (std::size_t i = 0; i < paths.size(); ++i) {
        ErrorRef error;
        const bool removed =
            !cancellation.requested() &&
            enforceRemovalOfFileSystemObjectAtPath(stringArgument(paths, i), recursive, &error);
        if (!removed && cancellation.requested()) return cancelledError(cancellation);
        if (!removed && stopOnFirstError) return error;
        sendProgress(feedbackConnection,
                     static_cast<double>(i + 1) / static_cast<double>(paths.size()));
    }
    sendProgress(feedbackConnection, 1.0);
    return nullptr;
}

}  // namespace corvalen
