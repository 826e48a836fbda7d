// SPDX-License-Identifier: MIT
// What the file-system operations share: the entry at a path, the user immutable flag, and the
// removal of objects with protective flags.
#include "fileops/file_operations.hpp"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <optional>
#include <utility>

#include "operations/errors.hpp"
#include "platform/files/entry.hpp"
#include "platform/files/object_trees.hpp"
#include "platform/files/subtree_walk.hpp"
#include "platform/files/tree_walk.hpp"

namespace corvalen {

Result<Entry, ErrorRef> openNamed(const std::string& path) {
    const std::optional<ClientPath> checked = ClientPath::from(path);
    Result<Entry> entry = checked ? openEntry(*checked) : failure(ENOENT);
    return std::move(entry).map_error(
        [&](SystemError error) { return makeFileError(FileAccess::write, error, path); });
}

// The user immutable flag of single objects and trees.

namespace {

/// Only these types have inode flags on Linux (ioctl_iflags(2)).
bool canCarryFlags(const struct statx& attributes) noexcept {
    return S_ISREG(attributes.stx_mode) || S_ISDIR(attributes.stx_mode);
}

/// Whether an object that cannot be examined counts as on another mount: one that denies root
/// access (EACCES), or was just unmounted (ENOENT).
bool belongsToAnotherMount(SystemError error) noexcept {
    return error == EACCES || error == ENOENT;
}

/// Holds no mutable state: several threads call visit() at once.
class FlagChange : public SubtreeVisitor {
  public:
    FlagChange(FileFlags& fileFlags, bool flag, const struct statx* volume) noexcept
        : _fileFlags(fileFlags), _flag(flag), _volume(volume) {}

    Result<> visit(TreeWalk& walk, bool* enter, std::uint64_t* /*sum*/) override {
        const struct statx* attributes = walk.attributes();
        const SystemError error{errno};  // if there are no attributes
        const bool elsewhere =
            _volume != nullptr && (attributes != nullptr ? !isSameMount(*attributes, *_volume)
                                                         : belongsToAnotherMount(error));
        if (elsewhere) {
            *enter = false;
            return {};
        }
        if (attributes == nullptr) return failure(error);
        if (S_ISLNK(attributes->stx_mode)) return visitLink(walk);
        if (!canCarryFlags(*attributes)) return {};
        return changeImmutableFlag(_fileFlags, walk.address(), *attributes, _flag);
    }
    Result<> cannotEnter(SystemError error) override {
        if (error == EXDEV) return failure(EBUSY);
        if (meansMissing(error)) return {};  // removed or replaced meanwhile
        return failure(error);
    }

  private:
    Result<> visitLink(const TreeWalk& walk) {
        // Listed as another type: the object was replaced by a symlink meanwhile.
        if (walk.entry().type != EntryType::symbolicLink) return {};
        const Result<Object> target =
            openObject({walk.address().parent, walk.address().name, /*followLink=*/true});
        if (meansMissing(target)) return {};
        if (!target) return failure(target.error());
        if (!canCarryFlags(target->status)) return {};
        return changeImmutableFlag(_fileFlags, target->address(), target->status, _flag);
    }

    FileFlags& _fileFlags;
    bool _flag;
    const struct statx* _volume;
};

}  // namespace

Result<> changeImmutableFlag(FileFlags& fileFlags, const ObjectAddress& object,
                             const struct statx& attributes, bool flag) {
    const Result<> changed =
        fileFlags.readFlags(object, attributes).and_then([&](std::uint32_t flags) -> Result<> {
            const std::uint32_t wanted =
                flag ? flags | kUserImmutableFlag : flags & ~kUserImmutableFlag;
            return wanted == flags ? Result<>() : fileFlags.setFlags(object, wanted);
        });
    return !flag && failedWith(changed, ENOTSUP) ? Result<>() : changed;
}

Result<> changeImmutableFlagsBelow(FileFlags& fileFlags, Descriptor directory, bool flag,
                                   const FlagChangeBounds& bounds) {
    Result<UniqueFd> top = openForListing(directory);
    if (!top) return failure(top.error());
    FlagChange change(fileFlags, flag, bounds.volume);
    const TreeWalkOptions walk{.order = TreeWalkOptions::Order::byInode,
                               .mounts = bounds.mounts,
                               .budget = SubtreeOptions::kBudgetOfMany,
                               .cancellation = &bounds.cancellation};
    const SubtreeOptions options{
        .walk = walk, .counts = bounds.counts, .mostWorkers = SubtreeOptions::kMostWorkers};
    return walkSubtrees(*std::move(top), change, options).map([](std::uint64_t /*sum*/) {});
}

std::uint32_t deviceIdentifier(const struct statx& attributes) noexcept {
    return static_cast<std::uint32_t>(makedev(attributes.stx_dev_major, attributes.stx_dev_minor));
}

// Removal.

namespace {

OperationErrorCode codeOf(RemovalObstacle obstacle) noexcept {
    switch (obstacle) {
        case RemovalObstacle::whiteout:
            return OperationErrorCode::cannotDeleteWhiteout;
        case RemovalObstacle::systemFlags:
            return OperationErrorCode::singleUserModeRequired;
        default:
            return OperationErrorCode::cannotChangeFlags;
    }
}

bool failWithCode(ErrorRef* out, OperationErrorCode code, const std::string& path) {
    if (out != nullptr) *out = makeOperationError(code, {{path}, path});
    return false;
}

}  // namespace

bool FileOperations::enforceRemovalOfFileSystemObjectAtPath(const std::string& path, bool recursive,
                                                            ErrorRef* error) {
    return recursive ? enforceRecursiveRemovalOfFileSystemObjectAtPath(path, error)
                     : enforceSingleRemovalOfFileSystemObjectAtPath(path, error);
}

bool FileOperations::enforceSingleRemovalOfFileSystemObjectAtPath(const std::string& path,
                                                                  ErrorRef* error) {
    const std::optional<ClientPath> checked = ClientPath::from(path);
    if (!checked) return failWithErrno(error, EINVAL);
    const Result<LocatedObject> located = openForRemoval(*checked);
    if (!located) return failWithErrno(error, located.error());
    const Result<RemovalObstacle> obstacle = removeSingleObject(*located, _fileFlags);
    if (!obstacle) return failWithErrno(error, obstacle.error());
    if (*obstacle != RemovalObstacle::none) return failWithCode(error, codeOf(*obstacle), path);
    Cancellation& cancellation = currentCancellation();
    cancellation.addObject();
    return true;
}

bool FileOperations::enforceRecursiveRemovalOfFileSystemObjectAtPath(const std::string& path,
                                                                     ErrorRef* error) {
    const std::optional<ClientPath> checked = ClientPath::from(path);
    if (!checked) return failWithErrno(error, EINVAL);
    const Result<LocatedObject> located = openForRemoval(*checked);
    if (!located) return meansMissing(located) || failWithErrno(error, located.error());
    const Result<> fits = checkType(located->entry, located->object);
    if (!fits) return failWithErrno(error, fits.error());
    return enforceRecursiveRemoval(located->entry.address(), path, error);
}

bool FileOperations::enforceRecursiveRemoval(const ObjectAddress& address, std::string_view path,
                                             ErrorRef* error) {
    Result<Object> object = openObject(address);
    // Kept: the target of a symlink is unlocked with everything below it. Then only the symlink is
    // removed. A symlink to nothing stays, and counts as removed.
    const bool isLink = object && object->isLink();
    if (isLink) object = openObject({address.parent, address.name, /*followLink=*/true});
    if (!object) return meansMissing(object) || failWithErrno(error, object.error());
    const Result<> unlocked = isLink ? unlockTree(*object, TreeWalkOptions::Mounts::entered)
                                     : unlockForRemoval(address, *object);
    if (!unlocked) return failWithErrno(error, unlocked.error());
    return _fileManager.removeItem(address, path, error);
}

Result<> FileOperations::unlockForRemoval(const ObjectAddress& address, const Object& object) {
    if (object.isDirectory()) {
        const Result<UniqueFd> opened = openOnSameMount(address.parent, address.name);
        if (failedWith(opened, EXDEV)) return failure(EBUSY);
        if (!opened) return failure(opened.error());
    }
    return unlockTree(object, TreeWalkOptions::Mounts::refused);
}

Result<> FileOperations::unlockTree(const Object& top, TreeWalkOptions::Mounts mounts) {
    const Result<> changed = changeImmutableFlag(_fileFlags, top.address(), top.status, false);
    if (!changed || !top.isDirectory()) return changed;
    return changeImmutableFlagsBelow(
        _fileFlags, top.descriptor, false,
        {.mounts = mounts, .cancellation = currentCancellation(), .counts = false});
}

}  // namespace corvalen
