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
            openObject({walk.address().parent, walk.address().name, true});
        if (!target && meansMissing(target.error())) return {};
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

}  // namespace corvalen
