// SPDX-License-Identifier: MIT
// search-filenames: finds the direct entries of a directory by name and kind. Arguments: directory,
// prefix, extension without its dot (S; the last two empty for any); directories wanted, else all
// other objects (N, a Boolean). The fraction is 0 until the end.
#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "fileops/file_object_info.hpp"
#include "foundation/path.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "platform/files/tree_walk.hpp"
#include "treewalk/search.hpp"
#include "treewalk/tree_walk_operations.hpp"

namespace corvalen {
namespace {

/// Whether the walk's object is of the wanted kind: a directory, or another object. Follows a
/// symlink; false for a dangling one.
bool existsAs(const TreeWalk& walk, bool folderWanted) {
    const EntryType type = walk.entry().type;
    if (type != EntryType::symbolicLink && type != EntryType::unknown)
        return (type == EntryType::directory) == folderWanted;
    struct stat target {};
    return ::fstatat(walk.address().parent.get(), walk.address().name, &target, 0) == 0 &&
           S_ISDIR(target.st_mode) == folderWanted;
}

}  // namespace

ErrorRef TreeWalkOperations::performOperationSearchFilenamesWithArguments(
    const Array& arguments, FeedbackConnection* feedbackConnection) {
    Result<SearchedFolder, ErrorRef> folder = openSearchedFolder(arguments);
    if (!folder) return folder.error();
    const std::string& prefix = stringArgument(arguments, 1);
    const std::string& extension = stringArgument(arguments, 2);
    const bool folderWanted = numberArgument(arguments, 3).boolValue();

    FindBatch batch(feedbackConnection);
    Cancellation& cancellation = currentCancellation();
    // Returns the direct entries only: nothing enters them.
    TreeWalk walk(std::move(folder->descriptor),
                  {.unlisted = TreeWalkOptions::Faults::pass,
                   .attributeMask = fileObjectInfoStatxMask(),
                   .cancellation = &cancellation},
                  folder->path);
    std::uint64_t count = 0;
    while (walk.next() == TreeWalk::Step::object) {
        const std::string_view name = walk.entry().name;
        const bool isFind = name.starts_with(prefix) &&
                            (extension.empty() || pathExtension(name) == extension) &&
                            existsAs(walk, folderWanted);
        if (isFind) batch.add(std::string(walk.path()), walk.attributes());
        batch.sendIfFull(0.0);
        cancellation.setObjectCount(++count);
    }
    if (failedWith(walk.result(), ECANCELED)) return cancelledError(cancellation);
    batch.send(1.0);
    return nullptr;
}

}  // namespace corvalen
