// SPDX-License-Identifier: MIT
#include "platform/files/object_removal.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/files/tree_walk.hpp"

namespace corvalen {
namespace {

int unlinkEntry(const ObjectAddress& entry, int kind, const RemovalOptions& options) noexcept {
    if (::unlinkat(entry.parent, entry.name, kind) != 0) return errno;
    if (options.begun != nullptr) *options.begun = true;
    if (options.cancellation != nullptr)
        options.cancellation->setObjectCount(options.cancellation->objectCount() + 1);
    return 0;
}

int removeEntry(const ObjectAddress& entry, const Object& object,
                const RemovalOptions& options) noexcept {
    return unlinkEntry(entry, object.isDirectory() ? AT_REMOVEDIR : 0, options);
}

/// An object that is already gone counts as removed.
int unlessGone(int error) noexcept {
    return error == ENOENT ? 0 : error;
}

/// Removes the walk's object, or enters it if it is a directory.
int removeOrEnter(TreeWalk& walk, const RemovalOptions& options) {
    int error = EISDIR;
    if (walk.entry().type != EntryType::directory) error = unlinkEntry(walk.address(), 0, options);
    // Its type may have changed since it was listed.
    if (error == EISDIR) {
        error = walk.enter();
        if (error == EXDEV) return EBUSY;
        if (error == ENOTDIR || error == ELOOP) error = unlinkEntry(walk.address(), 0, options);
    }
    return unlessGone(error);
}

int removeBelow(TreeWalk& walk, const RemovalOptions& options) {
    int error = 0;
    while (error == 0) {
        switch (walk.next()) {
            case TreeWalk::Step::object:
                error = removeOrEnter(walk, options);
                break;
            case TreeWalk::Step::left:
                error = unlessGone(unlinkEntry(walk.address(), AT_REMOVEDIR, options));
                break;
            case TreeWalk::Step::end:
                return walk.error();
        }
    }
    return error;
}

/// Returns ESTALE unless `found` is the expected object; null accepts any.
int compare(const Object& found, const struct statx* expected) noexcept {
    return expected == nullptr || isSameObject(found.status, *expected) ? 0 : ESTALE;
}

int removeContents(const ObjectAddress& object, const RemovalOptions& options,
                   std::string* failedPath) {
    Object directory;
    directory.descriptor = openOnSameMount(object.parent, object.name);
    if (!directory.descriptor) return errno == EXDEV ? EBUSY : errno;
    if (!examineOpen(directory.descriptor.get(), objectStatxMask(), &directory.status))
        return errno;
    if (const int error = compare(directory, options.expected); error != 0) return error;
    TreeWalk walk(std::move(directory.descriptor), {.resume = TreeWalkOptions::Resume::fromStart,
                                                    .order = TreeWalkOptions::Order::byInode,
                                                    .mounts = TreeWalkOptions::Mounts::refused,
                                                    .largeBatch = true,
                                                    .givesLeft = true,
                                                    .cancellation = options.cancellation});
    const int error = removeBelow(walk, options);
    if (error != 0) *failedPath = walk.relativePath();
    return error;
}

}  // namespace

int openForRemoval(const ClientPath& path, Entry* entry, Object* object, bool* exists) {
    int error = openEntry(path, entry);
    *exists = !meansMissing(error);
    if (error == 0) error = entry->checkRemovable();
    if (error != 0) return error;
    error = openObject(entry->address(), object);
    *exists = !meansMissing(error);
    return error != 0 ? error : checkType(*entry, *object);
}

int removeSingleObject(const Entry& entry, const Object& object, FileFlags& flags,
                       RemovalObstacle* obstacle) {
    *obstacle = RemovalObstacle::whiteout;
    if (isWhiteout(object.status)) return EPERM;
    std::uint32_t present = 0;
    // If the flags cannot be read, the removal itself fails on a protected object.
    if (flags.readFlags(object.address(), object.status, &present) != 0) present = 0;
    *obstacle = RemovalObstacle::systemFlags;
    if ((present & kSystemProtectionFlags) != 0) return EPERM;
    *obstacle = RemovalObstacle::flagsStay;
    if ((present & kUserProtectionFlags) != 0 &&
        flags.setFlags(object.address(), present & ~kUserProtectionFlags) != 0) {
        return EPERM;
    }
    *obstacle = RemovalObstacle::none;
    return removeEntry(entry.address(), object, {});
}

int removeTree(const ObjectAddress& object, const RemovalOptions& options,
               std::string* failedPath) {
    failedPath->clear();
    Object found;
    if (!examineAt(object.parent, object.name, objectStatxMask(), &found.status)) return errno;
    int error = compare(found, options.expected);
    if (error == 0 && found.isDirectory()) error = removeContents(object, options, failedPath);
    return error != 0 ? error : removeEntry(object, found, options);
}

}  // namespace corvalen
