// SPDX-License-Identifier: MIT
// search-filenames
#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "fileops/file_object_info.hpp"
#include "foundation/path.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "treewalk/directory_enumerator.hpp"
#include "treewalk/find_batch.hpp"
#include "treewalk/searched_folder.hpp"
#include "treewalk/tree_walk_operations.hpp"

namespace corvalen {
namespace {

/// Whether the object that the walk has given exists as a folder or as something else; a link
/// counts as what it leads to, and a dangling one as neither.
bool existsAs(QRLDirectoryEnumerator& walk, const QRLDirectoryEnumerator::Entry& entry,
              bool folderWanted) {
    if (entry.type != EntryType::symbolicLink && entry.type != EntryType::unknown)
        return (entry.type == EntryType::folder) == folderWanted;
    struct stat target {};
    return ::fstatat(descriptorOf(walk.parentFolder()), entry.name.data(), &target, 0) == 0 &&
           S_ISDIR(target.st_mode) == folderWanted;
}

}  // namespace

ErrorRef TreeWalkOperations::performOperationSearchFilenamesWithArguments(
    const Array& arguments, FeedbackConnection* feedbackConnection) {
    SearchedFolder folder;
    if (ErrorRef error = openSearchedFolder(arguments, &folder)) return error;
    const std::string& prefix = stringArgument(arguments, 1);
    const std::string& extension = stringArgument(arguments, 2);
    const bool folderWanted = numberArgument(arguments, 3).boolValue();

    FindBatch batch(feedbackConnection);
    QRLDirectoryEnumerator walk(std::move(folder.descriptor), folder.path, false,
                                WalkReach::directContents);
    walk.setAttributeMask(fileObjectInfoStatxMask());
    Cancellation& cancellation = currentCancellation();
    std::uint64_t count = 0;
    while (const QRLDirectoryEnumerator::Entry* entry = walk.next()) {
        const bool isFind = entry->name.starts_with(prefix) &&
                            (extension.empty() || pathExtension(entry->name) == extension) &&
                            existsAs(walk, *entry, folderWanted);
        if (isFind) batch.add(walk.currentAbsolutePathForDirectoryEntry(), walk.attributes());
        batch.sendIfFull(0.0);
        cancellation.setObjectCount(++count);
    }
    if (walk.wasCancelled()) return cancelledError(cancellation);
    batch.send(1.0);
    return nullptr;
}

}  // namespace corvalen
