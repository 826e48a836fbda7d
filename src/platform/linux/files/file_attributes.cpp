// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "platform/files/extended_acl.hpp"
#include "platform/files/file_attributes.hpp"
#include "platform/files/object_permissions.hpp"
#include "platform/linux/files/object_attributes.hpp"

namespace corvalen {
namespace {

constexpr mode_t kPermissionBits = 07777;
constexpr mode_t kGroupBits = 070;
constexpr mode_t kSetIdBits = S_ISUID | S_ISGID;
constexpr const char* kAccessList = "system.posix_acl_access";

timespec timeOf(const struct statx_timestamp& stamp) noexcept {
    return {stamp.tv_sec, static_cast<long>(stamp.tv_nsec)};
}

/// Returns the group bits for an object that loses its access list. The group bits of its mode are
/// the list's mask, which would give the group the rights of named users.
mode_t groupBitsWithoutList(const std::vector<std::uint8_t>& list) {
    unsigned group = 0;
    unsigned mask = kAllAclPermissions;
    for (const AclEntry& entry : entriesOf(list)) {
        if (entry.tag == acl_tag::kOwningGroup) group = entry.permissions;
        if (entry.tag == acl_tag::kMask) mask = entry.permissions;
    }
    return static_cast<mode_t>((group & mask) << 3);
}

/// Applies the attributes, one kind after the other.
class Applying {
  public:
    Applying(int descriptor, const FileAttributes& attributes,
             const AttributeChange& change) noexcept
        : _descriptor(descriptor),
          _attributes(attributes),
          _change(change),
          _mode(attributes.status.stx_mode & kPermissionBits) {}

    int run(FileFlags& flags) {
        // Owner first: changing it clears the set-ID bits and file capabilities.
        int error = applyOwner();
        if (error == 0) error = applyExtendedAttributes();
        if (error == 0) error = applyMode();
        if (error == 0 && _change.dates) error = applyDates();
        // Flags last: they may forbid all other changes.
        if (error == 0 && _change.flags) error = applyFlags(flags);
        return error;
    }

  private:
    [[nodiscard]] int unlessLeftOut(int error) const noexcept {
        return error == EPERM && _change.leaveOutRefused ? 0 : error;
    }

    int applyOwner() noexcept {
        const struct statx& status = _attributes.status;
        const int error = changeOwner({_descriptor}, status.stx_uid, status.stx_gid);
        if (error == 0 || hasOwner(status.stx_uid, status.stx_gid)) return 0;
        _mode &= ~kSetIdBits;
        return unlessLeftOut(error);
    }

    /// Some file systems refuse every change of the owner, even to the current one.
    [[nodiscard]] bool hasOwner(uid_t user, gid_t group) const noexcept {
        struct stat status {};
        return ::fstatat(_descriptor, "", &status, AT_EMPTY_PATH) == 0 && status.st_uid == user &&
               status.st_gid == group;
    }

    int applyExtendedAttributes() {
        for (const FileAttributes::ExtendedAttribute& one : _attributes.extendedAttributes) {
            const int error =
                setAttribute({_descriptor}, one.name.c_str(),
                             {reinterpret_cast<const char*>(one.value.data()), one.value.size()});
            if (error != 0 && error != EOPNOTSUPP && unlessLeftOut(error) != 0) return error;
            if (error != 0 && one.name == kAccessList)
                _mode = (_mode & ~kGroupBits) | groupBitsWithoutList(one.value);
        }
        return 0;
    }

    int applyMode() noexcept {
        // A symlink has no mode on Linux.
        if (S_ISLNK(_attributes.status.stx_mode)) return 0;
        return unlessLeftOut(changeMode({_descriptor}, _mode));
    }

    int applyDates() noexcept {
        const std::array<timespec, 2> times = {timeOf(_attributes.status.stx_atime),
                                               timeOf(_attributes.status.stx_mtime)};
        const int result = ::utimensat(_descriptor, "", times.data(), AT_EMPTY_PATH);
        return result == 0 ? 0 : unlessLeftOut(errno);
    }

    int applyFlags(FileFlags& flags) const {
        if (_attributes.flags == 0) return 0;
        const int error = flags.setFlags({_descriptor}, _attributes.flags);
        return error == ENOTSUP ? 0 : unlessLeftOut(error);
    }

    int _descriptor;
    const FileAttributes& _attributes;
    const AttributeChange& _change;
    mode_t _mode;
};

}  // namespace

int readAllAttributes(int descriptor, FileFlags& flags, FileAttributes* attributes) {
    if (::statx(descriptor, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME,
                &attributes->status) != 0) {
        return errno;
    }
    int error = flags.readFlags({descriptor}, attributes->status, &attributes->flags);
    if (error != 0 && error != ENOTSUP) return error;
    std::vector<std::string> names;
    error = listAttributes({descriptor}, &names);
    if (error != 0 && error != EOPNOTSUPP) return error;
    for (std::string& name : names) {
        std::vector<std::uint8_t> value;
        error = getAttribute({descriptor}, name.c_str(), &value);
        if (error == ENODATA || error == EOPNOTSUPP) continue;  // removed meanwhile
        if (error != 0) return error;
        attributes->extendedAttributes.push_back({std::move(name), std::move(value)});
    }
    return 0;
}

int applyAllAttributes(int descriptor, FileFlags& flags, const FileAttributes& attributes,
                       const AttributeChange& change) {
    return Applying(descriptor, attributes, change).run(flags);
}

}  // namespace corvalen
