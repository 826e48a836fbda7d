// SPDX-License-Identifier: MIT
// search-fileorphans: finds the objects below a directory whose owner is no known user; groups do
// not count. A directory with an unknown owner is one find if everything below it on its file
// system has one too; else its orphaned contents are found one by one. Arguments: directory (S),
// stay on its file system (N, a Boolean). The fraction is 0 until the end.
#include <sys/stat.h>

#include <string>
#include <string_view>
#include <utility>

#include "fileops/file_object_info.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "treewalk/known_owners.hpp"
#include "treewalk/search.hpp"
#include "treewalk/tree_walk_operations.hpp"
#include "treewalk/walk_ahead.hpp"

namespace corvalen {
namespace {

class OrphanSearch {
  public:
    OrphanSearch(WalkAhead& walk, const UserSet& known, FindBatch& batch)
        : _walk(walk), _known(known), _batch(batch) {}

    /// Adds the walk's object to the finds if its owner is unknown.
    void examine(const WalkAhead::Object& object) {
        const struct statx* attributes = _walk.attributes();
        if (attributes == nullptr || _known.contains(attributes->stx_uid)) return;
        if (!S_ISDIR(attributes->stx_mode)) {
            _batch.add(object.path(), attributes);
        } else if (holdsOnlyOrphans(object)) {
            _batch.add(object.path(), attributes);
            // A mount point, for instance, is not entered: there is nothing to skip.
            if (object.entered) _walk.skipDescendents();
        }
    }

  private:
    bool holdsOnlyOrphans(const WalkAhead::Object& object) {
        std::string path = object.path();
        if (leadsToOwned(path)) return false;
        _batch.flush();
        FolderOwnership ownership = inspectFolderOwnership(
            openDirectoryAt(object.parent, object.name.data()).value_or(UniqueFd()), _known);
        if (!ownership.firstOwned.empty()) {
            _owned = std::move(path.append("/").append(ownership.firstOwned));
        }
        return ownership.emptyOrAllContentsNotOwned;
    }

    /// Whether the object with a known owner that was found last is below `folder`. Inspecting
    /// `folder` would find it again: a deep chain of directories would be walked once per level.
    [[nodiscard]] bool leadsToOwned(std::string_view folder) const noexcept {
        return _owned.size() > folder.size() && _owned[folder.size()] == '/' &&
               std::string_view(_owned).starts_with(folder);
    }

    WalkAhead& _walk;
    const UserSet& _known;
    FindBatch& _batch;
    std::string _owned;  // path of the object with a known owner that was found last; or empty
};

}  // namespace

ErrorRef TreeWalkOperations::performOperationSearchFileorphansWithArguments(
    const Array& arguments, FeedbackConnection* feedbackConnection) {
    Result<SearchedFolder, ErrorRef> folder = openSearchedFolder(arguments);
    if (!folder) return folder.error();
    const bool stayOnFileSystem = numberArgument(arguments, 1).boolValue();

    const UserSet known = knownOwners(_users);
    FindBatch batch(feedbackConnection);
    WalkAhead walk(*std::move(folder), stayOnFileSystem, fileObjectInfoStatxMask() | STATX_UID);
    walk.setBeforeWait([&batch] { batch.flush(); });
    OrphanSearch search(walk, known, batch);
    while (const WalkAhead::Object* object = walk.next()) {
        search.examine(*object);
        batch.sendIfFull(0.0);
    }
    if (walk.wasCancelled()) return cancelledError(currentCancellation());
    batch.send(1.0);
    return nullptr;
}

}  // namespace corvalen
