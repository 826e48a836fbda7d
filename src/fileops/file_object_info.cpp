// SPDX-License-Identifier: MIT
#include "fileops/file_object_info.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <utility>
#include <vector>

#include "operations/names.hpp"
#include "platform/files/object_address.hpp"

namespace corvalen {
unsigned fileObjectInfoStatxMask() noexcept {
    return STATX_TYPE | STATX_MODE | STATX_SIZE | STATX_MTIME;
}

std::string_view fileTypeName(unsigned mode) noexcept {
    switch (mode & S_IFMT) {
        case S_IFREG:
            return "NSFileTypeRegular";
        case S_IFDIR:
            return "NSFileTypeDirectory";
        case S_IFLNK:
            return "NSFileTypeSymbolicLink";
        case S_IFSOCK:
            return "NSFileTypeSocket";
        case S_IFCHR:
            return "NSFileTypeCharacterSpecial";
        case S_IFBLK:
            return "NSFileTypeBlockSpecial";
        default:  // FIFOs too: they have no type name of their own
            return "NSFileTypeUnknown";
    }
}

Dictionary makeFileObjectInfo(std::string path, const struct statx& attributes) {
    const Date modified{attributes.stx_mtime.tv_sec, attributes.stx_mtime.tv_nsec};
    std::vector<Dictionary::Entry> entries;
    entries.reserve(5);
    // Entries in key order spare fromEntries() the sort.
    entries.push_back({std::string(kKeyObjectPOSIXMode),
                       Number::fromUnsigned(attributes.stx_mode & kPermissionBits)});
    entries.push_back({std::string(kKeyObjectModificationDate), modified});
    entries.push_back({std::string(kKeyObjectPath), std::move(path)});
    entries.push_back({std::string(kKeyObjectSize),
                       Number::fromUnsigned(static_cast<std::uint64_t>(attributes.stx_size))});
    entries.push_back({std::string(kKeyObjectType), fileTypeName(attributes.stx_mode)});
    return Dictionary::fromEntries(std::move(entries));
}

void addFileSystemObjectInfoDictionaryToArray(Array* array, std::string_view path) {
    if (array == nullptr || path.find('\0') != std::string_view::npos) return;
    std::string ownPath(path);
    struct statx attributes {};
    if (::statx(AT_FDCWD, ownPath.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT,
                fileObjectInfoStatxMask(), &attributes) != 0) {
        return;
    }
    array->emplace_back(makeFileObjectInfo(std::move(ownPath), attributes));
}

}  // namespace corvalen
