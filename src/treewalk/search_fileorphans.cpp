// SPDX-License-Identifier: MIT
// search-fileorphans
#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "fileops/file_object_info.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "treewalk/directory_enumerator.hpp"
#include "treewalk/known_owners.hpp"
#include "treewalk/search.hpp"
#include "treewalk/tree_walk_operations.hpp"

namespace corvalen {
namespace {

class OrphanSearch {
  public:
    OrphanSearch(QRLDirectoryEnumerator& walk, const UserSet& known, FindBatch& batch)
        : _walk(walk), _known(known), _batch(batch) {
        walk.setAttributeMask(fileObjectInfoStatxMask() | STATX_UID);
    }

    /// Adds the walk's object to the finds if its owner is unknown.
    void examine(const WalkEntry& entry) {
        const struct statx* attributes = _walk.attributes();
        if (attributes == nullptr || _known.contains(attributes->stx_uid)) return;
        if (!S_ISDIR(attributes->stx_mode)) {
            _batch.add(_walk.currentAbsolutePathForDirectoryEntry(), attributes);
        } else if (holdsOnlyOrphans(entry)) {
            _batch.add(_walk.currentAbsolutePathForDirectoryEntry(), attributes);
            _walk.skipDescendents();
        }
    }

  private:
    bool holdsOnlyOrphans(const WalkEntry& entry) {
        if (leadsToOwned(_walk.currentRelativePathForDirectoryEntry())) return false;
        FolderOwnership ownership = inspectFolderOwnership(
            openDirectoryAt(descriptorOf(_walk.parentDirectory()), entry.name.data()), _known);
        if (!ownership.firstOwned.empty()) {
            _owned.assign(_walk.currentRelativePathForDirectoryEntry());
            _owned.append("/").append(ownership.firstOwned);
        }
        return ownership.emptyOrAllContentsNotOwned;
    }

    /// Parents of an object with a known owner are not inspected: else a deep chain of directories
    /// would be walked once per level.
    [[nodiscard]] bool leadsToOwned(std::string_view folder) const noexcept {
        return _owned.size() > folder.size() && _owned[folder.size()] == '/' &&
               std::string_view(_owned).starts_with(folder);
    }

    QRLDirectoryEnumerator& _walk;
    const UserSet& _known;
    FindBatch& _batch;
    std::string _owned;
};

}  // namespace

ErrorRef TreeWalkOperations::performOperationSearchFileorphansWithArguments(
    const Array& arguments, FeedbackConnection* feedbackConnection) {
    SearchedFolder folder;
    if (ErrorRef error = openSearchedFolder(arguments, &folder)) return error;
    const bool stay = numberArgument(arguments, 1).boolValue();

    const UserSet known = knownOwners(_users);
    FindBatch batch(feedbackConnection);
    QRLDirectoryEnumerator walk(std::move(folder.descriptor), folder.path, stay);
    OrphanSearch search(walk, known, batch);
    Cancellation& cancellation = currentCancellation();
    std::uint64_t count = 0;
    while (const WalkEntry* entry = walk.next()) {
        search.examine(*entry);
        batch.sendIfFull(0.0);
        cancellation.setObjectCount(++count);
    }
    if (walk.wasCancelled()) return cancelledError(cancellation);
    batch.send(1.0);
    return nullptr;
}

}  // namespace corvalen
