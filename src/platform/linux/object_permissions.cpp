// SPDX-License-Identifier: MIT
#include "platform/object_permissions.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <vector>

#include "platform/linux/object_attributes.hpp"

namespace corvalen {
namespace {

constexpr long kFchmodat2 = 452;

std::atomic<bool> newCallMissing{false};

int changeModeThroughAnchor(int parent, const char* name, mode_t mode) noexcept {
    const UniqueFd anchor = openAnchor({parent, name});
    struct stat attributes {};
    if (!anchor || ::fstat(anchor.get(), &attributes) != 0) return errno;
    if (S_ISLNK(attributes.st_mode)) return 0;
    return changeModeOfAnchor(anchor.get(), mode);
}

}  // namespace

int changeOwnerAt(int parent, const char* name, uid_t owner, gid_t group) noexcept {
    return ::fchownat(parent, name, owner, group, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
}

int changeOwnerOf(int descriptor, uid_t owner, gid_t group) noexcept {
    return ::fchown(descriptor, owner, group) == 0 ? 0 : errno;
}

bool hasFileCapabilities(const ObjectAddress& file) {
    // Most files have no attribute at all, which is found out faster than the lack of this one.
    std::vector<std::uint8_t> capabilities;
    return hasAttributes(file) && getAttribute(file, "security.capability", &capabilities) == 0;
}

int changeModeAt(int parent, const char* name, mode_t mode) noexcept {
    if (!newCallMissing.load(std::memory_order_relaxed)) {
        if (::syscall(kFchmodat2, parent, name, mode, AT_SYMLINK_NOFOLLOW) == 0) return 0;
        // What the kernel says of a link; a file system may say it of anything.
        if (errno != ENOSYS && errno != EOPNOTSUPP) return errno;
        if (errno == ENOSYS) newCallMissing.store(true, std::memory_order_relaxed);
    }
    return changeModeThroughAnchor(parent, name, mode);
}

int changeModeOf(int descriptor, mode_t mode) noexcept {
    return ::fchmod(descriptor, mode) == 0 ? 0 : errno;
}

int changeModeOfAnchor(int anchor, mode_t mode) noexcept {
    return ::chmod(DescriptorPath(anchor).c_str(), mode) == 0 ? 0 : errno;
}

}  // namespace corvalen
