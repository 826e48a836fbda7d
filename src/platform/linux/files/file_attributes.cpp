// SPDX-License-Identifier: MIT
#include "platform/files/file_attributes.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <vector>

#include "platform/files/extended_acl.hpp"
#include "platform/files/object_address.hpp"
#include "platform/linux/files/object_attributes.hpp"

namespace corvalen {
namespace {

constexpr mode_t kGroupBits = 070;
constexpr mode_t kSetIdBits = S_ISUID | S_ISGID;

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
    Applying(Descriptor descriptor, const FileAttributes& attributes,
             const AttributeChange& change) noexcept
        : _descriptor(descriptor),
          _attributes(attributes),
          _change(change),
          _mode(attributes.status.stx_mode & kPermissionBits) {}

    Result<> run(FileFlags& flags) {
        // Owner first: changing it clears the set-ID bits and file capabilities.
        Result<> applied = applyOwner();
        if (applied) applied = applyExtendedAttributes();
        if (applied) applied = applyMode();
        if (applied && _change.dates) applied = applyDates();
        // Flags last: they may forbid all other changes.
        if (applied && _change.flags) applied = applyFlags(flags);
        return applied;
    }

  private:
    [[nodiscard]] Result<> unlessLeftOut(const Result<>& applied) const noexcept {
        if (_change.leaveOutRefused && failedWith(applied, EPERM)) return {};
        return applied;
    }

    Result<> applyOwner() noexcept {
        const struct statx& status = _attributes.status;
        const Result<> changed = changeOwner({_descriptor}, status.stx_uid, status.stx_gid);
        if (changed || hasOwner(status.stx_uid, status.stx_gid)) return {};
        _mode &= ~kSetIdBits;
        return unlessLeftOut(changed);
    }

    /// Some file systems refuse every change of the owner, even to the current one.
    [[nodiscard]] bool hasOwner(uid_t user, gid_t group) const noexcept {
        struct stat status {};
        return ::fstatat(_descriptor.get(), "", &status, AT_EMPTY_PATH) == 0 &&
               status.st_uid == user && status.st_gid == group;
    }

    Result<> applyExtendedAttributes() {
        for (const FileAttributes::ExtendedAttribute& one : _attributes.extendedAttributes) {
            const Result<> set =
                setAttribute({_descriptor}, one.name.c_str(),
                             {reinterpret_cast<const char*>(one.value.data()), one.value.size()});
            if (!failedWith(set, EOPNOTSUPP) && !unlessLeftOut(set)) return set;
            if (!set && one.name == kAccessListAttribute)
                _mode = (_mode & ~kGroupBits) | groupBitsWithoutList(one.value);
        }
        return {};
    }

    Result<> applyMode() noexcept {
        // A symlink has no mode on Linux.
        if (S_ISLNK(_attributes.status.stx_mode)) return {};
        return unlessLeftOut(changeMode({_descriptor}, _mode));
    }

    Result<> applyDates() noexcept {
        const std::array<timespec, 2> times = {timeOf(_attributes.status.stx_atime),
                                               timeOf(_attributes.status.stx_mtime)};
        return unlessLeftOut(
            resultOf(::utimensat(_descriptor.get(), "", times.data(), AT_EMPTY_PATH)));
    }

    Result<> applyFlags(FileFlags& flags) const {
        if (_attributes.flags == 0) return {};
        const Result<> set = flags.setFlags({_descriptor}, _attributes.flags);
        return failedWith(set, ENOTSUP) ? Result<>() : unlessLeftOut(set);
    }

    Descriptor _descriptor;
    const FileAttributes& _attributes;
    const AttributeChange& _change;
    mode_t _mode;
};

}  // namespace

Result<FileAttributes> readAllAttributes(Descriptor descriptor, FileFlags& flags) {
    FileAttributes attributes;
    if (::statx(descriptor.get(), "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME,
                &attributes.status) != 0) {
        return failure(errno);
    }
    const Result<std::uint32_t> word = flags.readFlags({descriptor}, attributes.status);
    if (!word && !failedWith(word, ENOTSUP)) return failure(word.error());
    attributes.flags = word.value_or(0);
    Result<std::vector<std::string>> names = listAttributes({descriptor});
    if (failedWith(names, EOPNOTSUPP)) return attributes;
    if (!names) return failure(names.error());
    for (std::string& name : *names) {
        Result<std::vector<std::uint8_t>> value = getAttribute({descriptor}, name.c_str());
        // Removed meanwhile.
        if (failedWith(value, ENODATA) || failedWith(value, EOPNOTSUPP)) continue;
        if (!value) return failure(value.error());
        attributes.extendedAttributes.push_back({std::move(name), *std::move(value)});
    }
    return attributes;
}

Result<> applyAllAttributes(Descriptor descriptor, FileFlags& flags,
                            const FileAttributes& attributes, const AttributeChange& change) {
    return Applying(descriptor, attributes, change).run(flags);
}

namespace {

constexpr std::size_t kTypeOffset = 0;
constexpr std::size_t kCreatorOffset = 4;
constexpr std::size_t kFlagsOffset = 8;              // the high byte of the 16 flags
constexpr std::uint8_t kInvisibleInHighByte = 0x40;  // 0x4000 of the 16

using FinderBytes = std::array<std::uint8_t, kFinderInfoLength>;

std::uint32_t bigEndian32(const FinderBytes& bytes, std::size_t offset) noexcept {
    std::uint32_t number = 0;
    for (std::size_t i = 0; i < 4; ++i)
        number = number << 8 | bytes[offset + i];
    return number;
}

void putBigEndian32(FinderBytes* bytes, std::size_t offset, std::uint32_t number) noexcept {
    for (std::size_t i = 0; i < 4; ++i)
        (*bytes)[offset + i] = static_cast<std::uint8_t>(number >> (24 - 8 * i));
}

bool meansNone(SystemError error) noexcept {
    return error == ENODATA;
}

/// Accepts attributes of other lengths, which other programs may write: missing bytes are zero,
/// further ones are ignored.
Result<FinderBytes> readBytes(const ObjectAddress& object) {
    FinderBytes bytes{};
    const Result<std::vector<std::uint8_t>> value = getAttribute(object, kFinderInfoAttribute);
    if (!value && !meansNone(value.error())) return failure(value.error());
    if (value) std::copy_n(value->begin(), std::min(value->size(), bytes.size()), bytes.begin());
    return bytes;
}

Result<> writeBytes(const ObjectAddress& object, const FinderBytes& bytes) {
    if (std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t byte) { return byte == 0; }))
        return ignoring(meansNone, removeAttribute(object, kFinderInfoAttribute));
    return setAttribute(object, kFinderInfoAttribute,
                        {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

}  // namespace

Result<FinderInfo> readFinderInfo(const ObjectAddress& object) {
    return readBytes(object).map([](const FinderBytes& bytes) {
        return FinderInfo{bigEndian32(bytes, kTypeOffset), bigEndian32(bytes, kCreatorOffset),
                          (bytes[kFlagsOffset] & kInvisibleInHighByte) != 0};
    });
}

Result<> setFinderCodes(const ObjectAddress& object, std::uint32_t typeCode,
                        std::uint32_t creatorCode) {
    Result<FinderBytes> bytes = readBytes(object);
    if (!bytes) return failure(bytes.error());
    putBigEndian32(&*bytes, kTypeOffset, typeCode);
    putBigEndian32(&*bytes, kCreatorOffset, creatorCode);
    return writeBytes(object, *bytes);
}

Result<> setFinderInvisible(const ObjectAddress& object, bool invisible) {
    Result<FinderBytes> bytes = readBytes(object);
    if (!bytes) return failure(bytes.error());
    std::uint8_t& flags = (*bytes)[kFlagsOffset];
    flags = static_cast<std::uint8_t>(invisible ? flags | kInvisibleInHighByte
                                                : flags & ~kInvisibleInHighByte);
    return writeBytes(object, *bytes);
}

}  // namespace corvalen
