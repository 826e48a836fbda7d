// SPDX-License-Identifier: MIT
#include "fileops/immutable_flag.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>

#include "fileops/file_operations.hpp"
#include "platform/file_manager_tree.hpp"

namespace corvalen {
namespace {

constexpr int kObjectItself = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;

/// Keeps no state: two threads may visit at once.
class FlagChange : public TreeVisitor {
  public:
    FlagChange(FileFlags& fileFlags, bool flag, TreeBounds bounds) noexcept
        : _fileFlags(fileFlags), _flag(flag), _bounds(bounds) {}

    int visit(const TreeEntry& entry, bool* descend) override {
        struct statx attributes {};
        const bool known =
            ::statx(entry.parent, entry.name, kObjectItself, STATX_TYPE, &attributes) == 0;
        const int error = known ? 0 : errno;
        if (_bounds.stayOnDevice) {
            const std::uint32_t device = known ? deviceIdentifier(attributes) : kNoFileSystemID;
            if (device != _bounds.device) {
                *descend = false;
                return 0;
            }
        }
        if (!known) return error;
        const ObjectAddress object{entry.parent, entry.name};
        if (!S_ISLNK(attributes.stx_mode))
            return changeImmutableFlag(_fileFlags, object, attributes, _flag);
        // Listed as something else: somebody exchanges objects for links while we work.
        if (entry.type != DT_LNK) return 0;
        return changeImmutableFlagOfLinkTarget(_fileFlags, object, _flag, false);
    }

  private:
    FileFlags& _fileFlags;
    bool _flag;
    TreeBounds _bounds;
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

int changeImmutableFlagOfLinkTarget(FileFlags& fileFlags, const ObjectAddress& link, bool flag,
                                    bool checking) {
    struct statx attributes {};
    const UniqueFd target = openAnchor({link.parent, link.name, true});
    if (!target || ::statx(target.get(), "", AT_EMPTY_PATH, STATX_TYPE, &attributes) != 0)
        return checking ? ENOENT : 0;
    return changeImmutableFlag(fileFlags, {target.get()}, attributes, flag);
}

int changeImmutableFlagsBelow(FileFlags& fileFlags, const ObjectAddress& folder, bool flag,
                              TreeBounds bounds) {
    UniqueFd top = openFolder(folder.parent, folder.name, folder.followLink);
    if (!top) return 0;
    FlagChange change(fileFlags, flag, bounds);
    return walkWithHelper(std::move(top), change);
}

std::uint32_t deviceIdentifier(const struct statx& attributes) noexcept {
    return static_cast<std::uint32_t>(makedev(attributes.stx_dev_major, attributes.stx_dev_minor));
}

}  // namespace corvalen
