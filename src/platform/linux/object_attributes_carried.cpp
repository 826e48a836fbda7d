// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "platform/linux/object_attributes.hpp"
#include "platform/linux/object_copy.hpp"

namespace corvalen {
namespace {

constexpr mode_t kPermissionBits = 07777;

timespec timeOf(const struct statx_timestamp& stamp) noexcept {
    return {stamp.tv_sec, static_cast<long>(stamp.tv_nsec)};
}

int applyExtendedAttributes(int anchor, const FileAttributes& attributes) {
    for (const FileAttributes::ExtendedAttribute& one : attributes.extendedAttributes) {
        const int error =
            setAttribute({anchor}, one.name.c_str(),
                         {reinterpret_cast<const char*>(one.value.data()), one.value.size()});
        if (error != 0 && error != EOPNOTSUPP) return error;
    }
    return 0;
}

int applyMode(int anchor, const struct statx& status) {
    // A symbolic link has no mode on Linux.
    if (S_ISLNK(status.stx_mode)) return 0;
    const DescriptorPath path(anchor);
    return ::chmod(path.c_str(), status.stx_mode & kPermissionBits) == 0 ? 0 : errno;
}

int applyDates(int anchor, const struct statx& status) {
    const std::array<timespec, 2> times = {timeOf(status.stx_atime), timeOf(status.stx_mtime)};
    return ::utimensat(anchor, "", times.data(), AT_EMPTY_PATH) == 0 ? 0 : errno;
}

int applyFlags(int anchor, FileFlags& flags, std::uint32_t wanted) {
    if (wanted == 0) return 0;
    const int error = flags.setFlags({anchor}, wanted);
    return error == ENOTSUP ? 0 : error;
}

}  // namespace

int readAllAttributes(int anchor, FileFlags& flags, FileAttributes* attributes) {
    if (::statx(anchor, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &attributes->status) !=
        0) {
        return errno;
    }
    int error = flags.readFlags({anchor}, attributes->status, &attributes->flags);
    if (error != 0 && error != ENOTSUP) return error;
    std::vector<std::string> names;
    error = listAttributes({anchor}, &names);
    if (error != 0 && error != EOPNOTSUPP) return error;
    for (std::string& name : names) {
        std::vector<std::uint8_t> value;
        error = getAttribute({anchor}, name.c_str(), &value);
        if (error == ENODATA || error == EOPNOTSUPP) continue;  // gone meanwhile
        if (error != 0) return error;
        attributes->extendedAttributes.push_back({std::move(name), std::move(value)});
    }
    return 0;
}

int applyAllAttributes(int anchor, FileFlags& flags, const FileAttributes& attributes,
                       Dates dates) {
    const struct statx& status = attributes.status;
    // The owner first: changing it clears the set-ID bits and file capabilities.
    if (::fchownat(anchor, "", status.stx_uid, status.stx_gid, AT_EMPTY_PATH) != 0) return errno;
    int error = applyExtendedAttributes(anchor, attributes);
    if (error == 0) error = applyMode(anchor, status);
    if (error == 0 && dates == Dates::carry) error = applyDates(anchor, status);
    if (error == 0) error = applyFlags(anchor, flags, attributes.flags);
    return error;
}

}  // namespace corvalen
