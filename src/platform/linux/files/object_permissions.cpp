// SPDX-License-Identifier: MIT
#include "platform/files/object_permissions.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "platform/linux/files/object_attributes.hpp"

namespace corvalen {
namespace {

constexpr long kFchmodat2 = 452;

std::atomic<bool> newCallMissing{false};

/// The descriptor may be O_PATH.
Result<> changeModeOfOpen(Descriptor descriptor, mode_t mode) noexcept {
    const Result<> changed = resultOf(::fchmod(descriptor.get(), mode));
    if (!failedWith(changed, EBADF)) return changed;
    return resultOf(::chmod(DescriptorPath(descriptor).c_str(), mode));
}

Result<> changeModeThroughAnchor(const ObjectAddress& object, mode_t mode) noexcept {
    const Result<UniqueFd> anchor = openAnchor(object);
    if (!anchor) return failure(anchor.error());
    struct stat attributes {};
    if (::fstat(anchor->get(), &attributes) != 0) return failure(errno);
    if (S_ISLNK(attributes.st_mode)) return {};
    return changeModeOfOpen(*anchor, mode);
}

}  // namespace

Result<> changeOwner(const ObjectAddress& object, uid_t owner, gid_t group) noexcept {
    const int flags = *object.name == '\0' ? AT_EMPTY_PATH : AT_SYMLINK_NOFOLLOW;
    return resultOf(::fchownat(object.parent.get(), object.name, owner, group, flags));
}

bool hasFileCapabilities(const ObjectAddress& file) {
    // Most files have no attributes, and listing finds that faster than reading this one.
    return hasAttributes(file) && getAttribute(file, "security.capability").has_value();
}

Result<> changeMode(const ObjectAddress& object, mode_t mode) noexcept {
    if (*object.name == '\0') return changeModeOfOpen(object.parent, mode);
    if (!newCallMissing.load(std::memory_order_relaxed)) {
        const Result<> changed = resultOf(
            ::syscall(kFchmodat2, object.parent.get(), object.name, mode, AT_SYMLINK_NOFOLLOW));
        // The kernel returns EOPNOTSUPP for a link; a file system may return it for any object.
        if (!failedWith(changed, ENOSYS) && !failedWith(changed, EOPNOTSUPP)) return changed;
        if (failedWith(changed, ENOSYS)) newCallMissing.store(true, std::memory_order_relaxed);
    }
    return changeModeThroughAnchor(object, mode);
}

}  // namespace corvalen
