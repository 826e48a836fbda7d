// SPDX-License-Identifier: MIT
#include "fileops/immutable_flag.hpp"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <utility>

#include "platform/files/entry.hpp"

namespace corvalen {
namespace {

/// Only these types have inode flags on Linux (ioctl_iflags(2)).
bool canCarryFlags(const struct statx& attributes) noexcept {
    return S_ISREG(attributes.stx_mode) || S_ISDIR(attributes.stx_mode);
}

/// A mount that denies root access (EACCES), or was just unmounted (ENOENT).
bool belongsToAnotherMount(int error) noexcept {
    return error == EACCES || error == ENOENT;
}

/// Holds no mutable state: several threads call visit() at once.
class FlagChange : public SubtreeVisitor {
  public:
    FlagChange(FileFlags& fileFlags, bool flag, const struct statx* volume) noexcept
        : _fileFlags(fileFlags), _flag(flag), _volume(volume) {}

    int visit(TreeWalk& walk, bool* enter, std::uint64_t* /*sum*/) override {
        const struct statx* attributes = walk.attributes();
        const int error = attributes == nullptr ? errno : 0;
        const bool elsewhere =
            _volume != nullptr && (attributes != nullptr ? !isSameMount(*attributes, *_volume)
                                                         : belongsToAnotherMount(error));
        if (elsewhere) {
            *enter = false;
            return 0;
        }
        if (attributes == nullptr) return error;
        if (S_ISLNK(attributes->stx_mode)) return visitLink(walk);
        if (!canCarryFlags(*attributes)) return 0;
        return changeImmutableFlag(_fileFlags, walk.address(), *attributes, _flag);
    }
    int cannotEnter(int error) override {
        if (error == EXDEV) return EBUSY;
        return meansMissing(error) ? 0 : error;  // removed or replaced meanwhile
    }

  private:
    int visitLink(const TreeWalk& walk) {
        // Listed as another type: the object was replaced by a symlink meanwhile.
        if (walk.entry().type != EntryType::symbolicLink) return 0;
        Object target;
        const int error = openObject({walk.address().parent, walk.address().name, true}, &target);
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
                              const FlagChangeBounds& bounds) {
    UniqueFd top = openForListing(directory);
    if (!top) return errno;
    FlagChange change(fileFlags, flag, bounds.volume);
    const TreeWalkOptions walk{.order = TreeWalkOptions::Order::byInode,
                               .mounts = bounds.mounts,
                               .budget = SubtreeOptions::kBudgetOfMany,
                               .cancellation = &bounds.cancellation};
    const SubtreeOptions options{
        .walk = walk, .counts = bounds.counts, .mostWorkers = SubtreeOptions::kMostWorkers};
    return walkSubtrees(std::move(top), change, options).error;
}

std::uint32_t deviceIdentifier(const struct statx& attributes) noexcept {
    return static_cast<std::uint32_t>(makedev(attributes.stx_dev_major, attributes.stx_dev_minor));
}

}  // namespace corvalen
