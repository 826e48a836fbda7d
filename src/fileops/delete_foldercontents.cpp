// SPDX-License-Identifier: MIT
// delete-foldercontents: removes everything below directories, but not the directories.
#include <cerrno>
#include <utility>

#include "fileops/file_operations.hpp"
#include "foundation/path.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "platform/files/tree_walk.hpp"

namespace corvalen {

ErrorRef FileOperations::performOperationDeleteFoldercontentsWithArguments(
    const Array& arguments, FeedbackConnection* feedbackConnection) {
    if (arguments.empty()) return makePosixError(EINVAL);
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        sendProgress(feedbackConnection,
                     static_cast<double>(i) / static_cast<double>(arguments.size()));
        const std::string& path = stringArgument(arguments, i);
        if (hasNulByte(path)) return makePosixError(EINVAL);
        const std::optional<ClientPath> checked = ClientPath::from(path);
        Object folder;
        const int code = checked ? openObject(*checked, &folder) : ENOENT;
        if (meansMissing(code)) continue;
        if (code != 0) return makePosixError(code);
        if (!folder.isDirectory()) return makePosixError(ENOTDIR);
        if (ErrorRef error = deleteContentsOfFolder(folder, path)) return error;
    }
    sendProgress(feedbackConnection, 1.0);
    return nullptr;
}

ErrorRef FileOperations::deleteContentsOfFolder(const Object& folder, const std::string& path) {
    UniqueFd listed = openForListing(folder.descriptor.get());
    if (!listed) return makeFileError(FileAccess::read, errno, path);
    Cancellation& cancellation = currentCancellation();
    TreeWalk walk(std::move(listed), {.cancellation = &cancellation});
    ErrorRef error;
    while (!error && walk.next() == TreeWalk::Step::object) {
        (void)enforceRecursiveRemoval(walk.address(), appendPathComponent(path, walk.entry().name),
                                      &error);
    }
    const bool isFaulty = error || walk.error() != 0;
    if (isFaulty && cancellation.requested()) return cancelledError(cancellation);
    return walk.error() != 0 ? makeFileError(FileAccess::read, walk.error(), path) : error;
}

}  // namespace corvalen
