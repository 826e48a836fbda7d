// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/linux/object_copy.hpp"

namespace corvalen {
namespace {

int unlinkEntry(int parent, const char* name, int kind, bool* begun) noexcept {
    if (::unlinkat(parent, name, kind) != 0) return errno;
    if (begun != nullptr) *begun = true;
    return 0;
}

/// Somebody else removed it first, which is as good.
int unlessGone(int error) noexcept {
    return error == ENOENT ? 0 : error;
}

class Removing : public TreeVisitor {
  public:
    explicit Removing(bool* begun) noexcept : _begun(begun) {}

    int visit(const TreeEntry& entry, bool* descend) override {
        if (*descend) return 0;
        const int error = unlinkEntry(entry.parent, entry.name, 0, _begun);
        // It has become a folder since it was listed.
        *descend = error == EISDIR;
        return *descend ? 0 : unlessGone(error);
    }
    int leave(const TreeEntry& entry) override {
        return unlessGone(unlinkEntry(entry.parent, entry.name, AT_REMOVEDIR, _begun));
    }
    int cannotEnter(const TreeEntry& entry, int error) override {
        if (error == EXDEV) return EBUSY;
        // A folder that was exchanged for a link: the link is what is removed.
        if (error != ENOTDIR && error != ELOOP) return unlessGone(error);
        return unlessGone(unlinkEntry(entry.parent, entry.name, 0, _begun));
    }
    int cannotList(int error) override { return error; }

  private:
    bool* _begun;
};

/// ESTALE for another object than the expected one.
int compare(const struct statx& found, const struct statx* expected) noexcept {
    return expected == nullptr || isSameObject(found, *expected) ? 0 : ESTALE;
}

int removeDirectory(const ObjectAddress& object, const RemovalOptions& options,
                    std::string* failedPath) {
    UniqueFd directory = openOnSameMount(object.parent, object.name);
    if (!directory) return errno == EXDEV ? EBUSY : errno;
    struct statx status {};
    if (::statx(directory.get(), "", AT_EMPTY_PATH, objectStatxMask(), &status) != 0) return errno;
    if (const int error = compare(status, options.expected); error != 0) return error;
    Removing removing(options.begun);
    TreeWalk walk({.resume = TreeWalkOptions::Resume::fromStart,
                   .mounts = TreeWalkOptions::Mounts::refused,
                   .progress = options.progress});
    const int error = walk.walk(std::move(directory), removing);
    if (error != 0) {
        *failedPath = walk.failedPath();
        return error;
    }
    return unlinkEntry(object.parent, object.name, AT_REMOVEDIR, options.begun);
}

}  // namespace

int removeTree(const ObjectAddress& object, const RemovalOptions& options,
               std::string* failedPath) {
    failedPath->clear();
    struct statx status {};
    if (::statx(object.parent, object.name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT,
                objectStatxMask(), &status) != 0) {
        return errno;
    }
    int error = compare(status, options.expected);
    if (error != 0) return error;
    error = S_ISDIR(status.stx_mode) ? removeDirectory(object, options, failedPath)
                                     : unlinkEntry(object.parent, object.name, 0, options.begun);
    if (error == 0 && options.progress != nullptr) options.progress->add(1);
    return error;
}

}  // namespace corvalen
