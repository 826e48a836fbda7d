// SPDX-License-Identifier: MIT
#include "platform/files/object_removal.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/files/tree_walk.hpp"

namespace corvalen {
namespace {

Result<> unlinkEntry(const ObjectAddress& entry, int kind, const RemovalOptions& options) noexcept {
    if (::unlinkat(entry.parent.get(), entry.name, kind) != 0) return failure(errno);
    if (options.begun != nullptr) *options.begun = true;
    if (options.cancellation != nullptr)
        options.cancellation->setObjectCount(options.cancellation->objectCount() + 1);
    return {};
}

Result<> removeEntry(const ObjectAddress& entry, const Object& object,
                     const RemovalOptions& options) noexcept {
    return unlinkEntry(entry, object.isDirectory() ? AT_REMOVEDIR : 0, options);
}

/// An object that is already gone counts as removed.
bool isGone(SystemError error) noexcept {
    return error == ENOENT;
}

/// Removes the walk's object, or enters it if it is a directory.
Result<> removeOrEnter(TreeWalk& walk, const RemovalOptions& options) {
    Result<> done = failure(EISDIR);
    if (walk.entry().type != EntryType::directory) done = unlinkEntry(walk.address(), 0, options);
    // Its type may have changed since it was listed.
    if (failedWith(done, EISDIR)) {
        done = walk.enter();
        if (failedWith(done, EXDEV)) return failure(EBUSY);
        if (failedWith(done, ENOTDIR) || failedWith(done, ELOOP))
            done = unlinkEntry(walk.address(), 0, options);
    }
    return ignoring(isGone, done);
}

Result<> removeBelow(TreeWalk& walk, const RemovalOptions& options) {
    Result<> done;
    while (done) {
        switch (walk.next()) {
            case TreeWalk::Step::object:
                done = removeOrEnter(walk, options);
                break;
            case TreeWalk::Step::left:
                done = ignoring(isGone, unlinkEntry(walk.address(), AT_REMOVEDIR, options));
                break;
            case TreeWalk::Step::end:
                return walk.result();
        }
    }
    return done;
}

/// ESTALE unless `found` is the expected object; null accepts any.
Result<> compare(const Object& found, const struct statx* expected) noexcept {
    if (expected == nullptr || isSameObject(found.status, *expected)) return {};
    return failure(ESTALE);
}

Result<void, TreeError> removeContents(const ObjectAddress& object, const RemovalOptions& options) {
    Result<UniqueFd> opened = openOnSameMount(object.parent, object.name);
    if (failedWith(opened, EXDEV)) return failure(EBUSY);
    if (!opened) return failure(opened.error());
    Object directory{*std::move(opened)};
    if (!examineOpen(directory.descriptor, objectStatxMask(), &directory.status))
        return failure(errno);
    if (const Result<> same = compare(directory, options.expected); !same)
        return failure(same.error());
    TreeWalk walk(std::move(directory.descriptor), {.resume = TreeWalkOptions::Resume::fromStart,
                                                    .order = TreeWalkOptions::Order::byInode,
                                                    .mounts = TreeWalkOptions::Mounts::refused,
                                                    .largeBatch = true,
                                                    .givesLeft = true,
                                                    .cancellation = options.cancellation});
    const Result<> removed = removeBelow(walk, options);
    if (!removed) return failure(TreeError(removed.error(), walk.relativePath()));
    return {};
}

}  // namespace

Result<LocatedObject> openForRemoval(const ClientPath& path) {
    Result<Entry> entry = openEntry(path);
    if (!entry) return failure(entry.error());
    if (const Result<> removable = entry->checkRemovable(); !removable)
        return failure(removable.error());
    Result<Object> object = openObject(entry->address());
    if (!object) return failure(object.error());
    return LocatedObject{*std::move(entry), *std::move(object)};
}

Result<RemovalObstacle> removeSingleObject(const LocatedObject& located, FileFlags& flags) {
    const auto& [entry, object] = located;
    if (const Result<> fits = checkType(entry, object); !fits) return failure(fits.error());
    if (isWhiteout(object.status)) return RemovalObstacle::whiteout;
    // If the flags cannot be read, the removal itself fails on a protected object.
    const std::uint32_t present = flags.readFlags(object.address(), object.status).value_or(0);
    if ((present & kSystemProtectionFlags) != 0) return RemovalObstacle::systemFlags;
    if ((present & kUserProtectionFlags) != 0 &&
        !flags.setFlags(object.address(), present & ~kUserProtectionFlags)) {
        return RemovalObstacle::flagsStay;
    }
    return removeEntry(entry.address(), object, {}).map([] { return RemovalObstacle::none; });
}

Result<void, TreeError> removeTree(const ObjectAddress& object, const RemovalOptions& options) {
    Object found;
    if (!examineAt(object.parent, object.name, objectStatxMask(), &found.status))
        return failure(errno);
    if (const Result<> same = compare(found, options.expected); !same) return failure(same.error());
    if (found.isDirectory()) {
        Result<void, TreeError> emptied = removeContents(object, options);
        if (!emptied) return emptied;
    }
    if (const Result<> removed = removeEntry(object, found, options); !removed)
        return failure(removed.error());
    return {};
}

}  // namespace corvalen
