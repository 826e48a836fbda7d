// SPDX-License-Identifier: MIT
// delete-foldercontents: removes everything below directories, but not the directories. Arguments:
// paths (S...); symlinks to directories are followed. Skips an empty path and a directory that does
// not exist. A symlink to nothing directly in a directory stays. The first failure ends the
// operation.
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
        if (!checked) continue;
        const Result<Object> folder = openObject(*checked);
        if (meansMissing(folder)) continue;
        if (!folder) return makePosixError(folder.error());
        if (!folder->isDirectory()) return makePosixError(ENOTDIR);
        if (ErrorRef error = deleteContentsOfFolder(*folder, path)) return error;
    }
    sendProgress(feedbackConnection, 1.0);
    return nullptr;
}

ErrorRef FileOperations::deleteContentsOfFolder(const Object& folder, const std::string& path) {
    Result<UniqueFd> listed = openForListing(folder.descriptor);
    if (!listed) return makeFileError(FileAccess::read, listed.error(), path);
    Cancellation& cancellation = currentCancellation();
    // Returns the direct entries only: nothing enters them.
    TreeWalk walk(*std::move(listed), {.cancellation = &cancellation});
    ErrorRef error;
    while (!error && walk.next() == TreeWalk::Step::object) {
        (void)enforceRecursiveRemoval(walk.address(), appendPathComponent(path, walk.entry().name),
                                      &error);
    }
    const Result<> walked = walk.result();
    if ((error || !walked) && cancellation.requested()) return cancelledError(cancellation);
    return walked ? error : makeFileError(FileAccess::read, walked.error(), path);
}

}  // namespace corvalen
