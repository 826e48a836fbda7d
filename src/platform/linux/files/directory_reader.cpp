// SPDX-License-Identifier: MIT
#include "platform/files/directory_reader.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cstring>

namespace corvalen {

namespace {

/// The record of getdents64(2); the name follows the fixed part.
struct LinuxDirent64 {
    std::uint64_t inode;
    std::int64_t offset;
    std::uint16_t recordLength;
    std::uint8_t type;
};
constexpr std::size_t kNameOffset = 19;

EntryType entryType(std::uint8_t type) noexcept {
    switch (type) {
        case DT_UNKNOWN:
            return EntryType::unknown;
        case DT_DIR:
            return EntryType::directory;
        case DT_LNK:
            return EntryType::symbolicLink;
        case DT_BLK:
            return EntryType::blockDevice;
        case DT_SOCK:
            return EntryType::socket;
        default:
            return EntryType::other;
    }
}

std::uint8_t linuxType(EntryType type) noexcept {
    switch (type) {
        case EntryType::unknown:
            return DT_UNKNOWN;
        case EntryType::directory:
            return DT_DIR;
        case EntryType::symbolicLink:
            return DT_LNK;
        case EntryType::blockDevice:
            return DT_BLK;
        case EntryType::socket:
            return DT_SOCK;
        default:
            return DT_REG;
    }
}

}  // namespace

Result<UniqueFd> openDirectoryAt(Descriptor parent, const char* name) noexcept {
    return openedBy(::openat(parent.get(), name, kListingFlags));
}

std::ptrdiff_t readDirectoryEntries(Descriptor directory, std::span<std::byte> buffer) noexcept {
    return ::syscall(SYS_getdents64, directory.get(), buffer.data(), buffer.size());
}

RawDirectoryEntry directoryEntryAt(std::span<const std::byte> buffer) noexcept {
    LinuxDirent64 header;
    std::memcpy(&header, buffer.data(), sizeof header);
    const char* name = reinterpret_cast<const char*>(buffer.data()) + kNameOffset;
    return {std::string_view(name), entryType(header.type), header.inode, header.offset,
            header.recordLength};
}

void appendDirectoryEntry(std::vector<std::byte>& buffer, const RawDirectoryEntry& entry) {
    const std::size_t length = kNameOffset + entry.name.size() + 1;
    const LinuxDirent64 header{entry.inode, entry.position, static_cast<std::uint16_t>(length),
                               linuxType(entry.type)};
    const std::size_t at = buffer.size();
    buffer.resize(at + length);
    std::memcpy(&buffer[at], &header, kNameOffset);
    std::memcpy(&buffer[at + kNameOffset], entry.name.data(), entry.name.size());
}

bool seekDirectory(Descriptor directory, std::int64_t position) noexcept {
    return ::lseek(directory.get(), position, SEEK_SET) >= 0;
}

bool hasInodesOnDisk(Descriptor directory) noexcept {
    struct statfs status {};
    if (::fstatfs(directory.get(), &status) != 0) return true;
    switch (static_cast<std::uint32_t>(status.f_type)) {  // its type differs between architectures
        case TMPFS_MAGIC:
        case NFS_SUPER_MAGIC:
        case CIFS_SUPER_MAGIC:
        case SMB2_SUPER_MAGIC:
            return false;
        default:
            return true;
    }
}

bool examineAt(Descriptor parent, const char* name, unsigned mask,
               struct statx* attributes) noexcept {
    constexpr int kFlags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | AT_STATX_SYNC_AS_STAT;
    return ::statx(parent.get(), name, kFlags, mask, attributes) == 0;
}

bool examineOpen(Descriptor descriptor, unsigned mask, struct statx* attributes) noexcept {
    return ::statx(descriptor.get(), "", AT_EMPTY_PATH | AT_STATX_SYNC_AS_STAT, mask, attributes) ==
           0;
}

EntryType entryTypeOf(const struct statx& attributes) noexcept {
    return entryType(static_cast<std::uint8_t>(IFTODT(attributes.stx_mode)));
}

std::uint64_t deviceOf(const struct statx& attributes) noexcept {
    return makedev(attributes.stx_dev_major, attributes.stx_dev_minor);
}

}  // namespace corvalen
