// SPDX-License-Identifier: MIT
#include "fileops/immutable_flag.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <utility>

#include "platform/entry.hpp"

namespace corvalen {
namespace {

constexpr int kObjectItself = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;

/// Only these carry flags on Linux.
bool canCarryFlags(const struct statx& attributes) noexcept {
    return S_ISREG(attributes.stx_mode) || S_ISDIR(attributes.stx_mode);
}

/// A mount point whose file system keeps root out, or a mount that has just gone.
bool belongsToAnotherMount(int error) noexcept {
    return error == EACCES || error == ENOENT;
}

/// Keeps no state: two threads may visit at once.
class FlagChange : public TreeVisitor {
  public:
    FlagChange(FileFlags& fileFlags, bool flag, const struct statx* volume) noexcept
        : _fileFlags(fileFlags), _flag(flag), _volume(volume) {}

    int visit(const TreeEntry& entry, bool* descend) override {
        struct statx attributes {};
        const bool known = ::statx(entry.parent, entry.name, kObjectItself,
                                   STATX_TYPE | STATX_MNT_ID, &attributes) == 0;
        const int error = known ? 0 : errno;
        const bool elsewhere = known ? _volume != nullptr && !isSameMount(attributes, *_volume)
                                     : _volume != nullptr && belongsToAnotherMount(error);
        if (elsewhere) {
            *descend = false;
            return 0;
        }
        if (!known) return error;
        if (S_ISLNK(attributes.stx_mode)) return visitLink(entry);
        if (!canCarryFlags(attributes)) return 0;
        return changeImmutableFlag(_fileFlags, {entry.parent, entry.name}, attributes, _flag);
    }
    int cannotEnter(const TreeEntry& /*entry*/, int error) override {
        if (error == EXDEV) return EBUSY;
        return meansMissing(error) ? 0 : error;  // removed or exchanged meanwhile
    }
    int cannotList(int error) override { return error; }

  private:
    int visitLink(const TreeEntry& entry) {
        // Listed as something else: somebody exchanges objects for links while we work.
        if (entry.type != DT_LNK) return 0;
        Object target;
        const int error = openObject({entry.parent, entry.name, true}, &target);
        if (error != 0) return meansMissing(error) ? 0 : error;
        if (!canCarryFlags(target.status)) return 0;
        return changeImmutableFlag(_fileFlags, target.address(), target.status, _flag);
    }

    FileFlags& _fileFlags;
    bool _flag;
    const struct statx* _volume;
};

}  // namespace

int changeImmutableFlag(FileFlags& fileFlags, const ObjectAddress& object,
                        const struct statx& attributes, bool flag) {
    std::uint32_t flags = 0;
    int error = fileFlags.readFlags(object, attributes, &flags);
    if (error == 0) {
        const std::uint32_t wanted =
            flag ? flags | kUserImmutableFlag : flags & ~kUserImmutableFlag;
        if (wanted == flags) return 0;
        error = fileFlags.setFlags(object, wanted);
    }
    return error == ENOTSUP && !flag ? 0 : error;
}

int changeImmutableFlagsBelow(FileFlags& fileFlags, int directory, bool flag,
                              const TreeBounds& bounds) {
    UniqueFd top = openForListing(directory);
    if (!top) return errno;
    FlagChange change(fileFlags, flag, bounds.top);
    return walkWithHelper(std::move(top), change, bounds.walk);
}

std::uint32_t deviceIdentifier(const struct statx& attributes) noexcept {
    return static_cast<std::uint32_t>(makedev(attributes.stx_dev_major, attributes.stx_dev_minor));
}

}  // namespace corvalen
