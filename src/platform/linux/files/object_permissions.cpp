// SPDX-License-Identifier: MIT
#include "platform/files/object_permissions.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <vector>

#include "platform/linux/files/object_attributes.hpp"

namespace corvalen {
namespace {

constexpr long kFchmodat2 = 452;

std::atomic<bool> newCallMissing{false};

/// The descriptor may be O_PATH.
int changeModeOfOpen(int descriptor, mode_t mode) noexcept {
    if (::fchmod(descriptor, mode) == 0) return 0;
    if (errno != EBADF) return errno;
    return ::chmod(DescriptorPath(descriptor).c_str(), mode) == 0 ? 0 : errno;
}

int changeModeThroughAnchor(const ObjectAddress& object, mode_t mode) noexcept {
    const UniqueFd anchor = openAnchor(object);
    struct stat attributes {};
    if (!anchor || ::fstat(anchor.get(), &attributes) != 0) return errno;
    if (S_ISLNK(attributes.st_mode)) return 0;
    return changeModeOfOpen(anchor.get(), mode);
}

}  // namespace

int changeOwner(const ObjectAddress& object, uid_t owner, gid_t group) noexcept {
    const int flags = *object.name == '\0' ? AT_EMPTY_PATH : AT_SYMLINK_NOFOLLOW;
    return ::fchownat(object.parent, object.name, owner, group, flags) == 0 ? 0 : errno;
}

bool hasFileCapabilities(const ObjectAddress& file) {
    // Most files have no attributes, and listing finds that faster than reading this one.
    std::vector<std::uint8_t> capabilities;
    return hasAttributes(file) && getAttribute(file, "security.capability", &capabilities) == 0;
}

int changeMode(const ObjectAddress& object, mode_t mode) noexcept {
    if (*object.name == '\0') return changeModeOfOpen(object.parent, mode);
    if (!newCallMissing.load(std::memory_order_relaxed)) {
        if (::syscall(kFchmodat2, object.parent, object.name, mode, AT_SYMLINK_NOFOLLOW) == 0)
            return 0;
        // The kernel returns EOPNOTSUPP for a link; a file system may return it for any object.
        if (errno != ENOSYS && errno != EOPNOTSUPP) return errno;
        if (errno == ENOSYS) newCallMissing.store(true, std::memory_order_relaxed);
    }
    return changeModeThroughAnchor(object, mode);
}

}  // namespace corvalen
