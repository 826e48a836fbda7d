// SPDX-License-Identifier: MIT
#include "platform/files/entry.hpp"

#include <fcntl.h>
#include <linux/magic.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>

#include "platform/files/directory_reader.hpp"

namespace corvalen {
namespace {

/// The kernel's limit for one resolution (MAXSYMLINKS).
constexpr int kMostLinks = 40;
constexpr int kParentFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;
constexpr int kListingFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
/// apparmorfs; missing in <linux/magic.h>.
constexpr long kAppArmorMagic = 0x5a3c69f0;

/// Returns whether links of this file system may lead to an object directly instead of naming a
/// path.
bool hasMagicLinks(int directory) noexcept {
    struct statfs fileSystem {};
    if (::fstatfs(directory, &fileSystem) != 0) return true;
    return fileSystem.f_type == PROC_SUPER_MAGIC || fileSystem.f_type == kAppArmorMagic;
}

int readLinkText(int link, std::string* text) {
    std::array<char, PATH_MAX> buffer;
    const ssize_t length = ::readlinkat(link, "", buffer.data(), buffer.size());
    if (length < 0) return errno;
    // Targets are shorter on Linux: a full buffer may be truncated.
    if (static_cast<std::size_t>(length) == buffer.size()) return ENAMETOOLONG;
    text->assign(buffer.data(), static_cast<std::size_t>(length));
    return 0;
}

UniqueFd openForListing(int parent, const char* path, std::uint64_t resolve) noexcept {
    open_how how{};
    how.flags = static_cast<unsigned>(kListingFlags);
    how.resolve = resolve;
    return UniqueFd(static_cast<int>(::syscall(SYS_openat2, parent, path, &how, sizeof how)));
}

/// Without openat2(2): compares mounts after opening.
UniqueFd openAndCompareMounts(int parent, const char* name) noexcept {
    UniqueFd opened = openDirectoryAt(parent, name);
    if (!opened) return opened;
    struct statx above {};
    struct statx below {};
    if (!examineOpen(parent, objectStatxMask(), &above) ||
        !examineOpen(opened.get(), objectStatxMask(), &below)) {
        opened.reset();
    } else if (!isSameMount(above, below)) {
        opened.reset();
        errno = EXDEV;
    }
    return opened;
}

bool meansNoSync(int error) noexcept {
    return error == EINVAL || error == EROFS || error == ENOSYS || error == EOPNOTSUPP;
}

}  // namespace

std::optional<ClientPath> ClientPath::from(std::string_view text) {
    if (text.empty() || text.find('\0') != std::string_view::npos) return std::nullopt;
    return ClientPath(text);
}

std::optional<Component> Component::from(std::string_view text) {
    constexpr std::string_view kForbidden("/\0", 2);
    if (text.empty() || text.find_first_of(kForbidden) != std::string_view::npos)
        return std::nullopt;
    return Component(text);
}

std::string Entry::shownPath(std::string_view otherwise) const {
    std::array<char, PATH_MAX> buffer;
    const ssize_t length =
        ::readlink(DescriptorPath(_parent.get()).c_str(), buffer.data(), buffer.size());
    if (length <= 0 || static_cast<std::size_t>(length) == buffer.size())
        return std::string(otherwise);
    std::string path(buffer.data(), static_cast<std::size_t>(length));
    if (path != "/") path.push_back('/');
    return path + _name.text();
}

int openEntry(const ClientPath& path, Entry* entry) {
    return openEntryAt(AT_FDCWD, path.text(), entry);
}

int openEntryAt(int base, std::string_view path, Entry* entry) {
    const std::size_t last = path.find_last_not_of('/');
    const bool onlySlashes = last == std::string_view::npos;
    const std::string_view text = path.substr(0, onlySlashes ? 0 : last + 1);
    const std::size_t nameAt = text.rfind('/') + 1;  // 0 without a slash
    std::string directory(text.substr(0, nameAt));
    if (directory.empty()) directory = onlySlashes ? "/" : ".";
    UniqueFd parent(::openat(base, directory.c_str(), kParentFlags));
    if (!parent) return errno;
    entry->_parent = std::move(parent);
    entry->_name = Component(onlySlashes ? std::string_view(".") : text.substr(nameAt));
    entry->_mustBeDirectory = text.size() < path.size();
    entry->_isRoot = onlySlashes;
    return 0;
}

int openEntryBehindLinks(const ClientPath& path, Entry* entry, Object* object) {
    int error = openEntry(path, entry);
    bool mustBeDirectory = false;
    std::string text;
    for (int links = 0; error == 0 && links <= kMostLinks; ++links) {
        mustBeDirectory = mustBeDirectory || entry->mustBeDirectory();
        if (error = openObject(entry->address(), object); error != 0) return error;
        if (!object->isLink()) return mustBeDirectory && !object->isDirectory() ? ENOTDIR : 0;
        if (hasMagicLinks(entry->parent())) return ELOOP;
        error = readLinkText(object->descriptor.get(), &text);
        Entry next;
        if (error == 0) error = openEntryAt(entry->parent(), text, &next);
        *entry = std::move(next);
    }
    return error != 0 ? error : ELOOP;
}

int openObject(const ClientPath& path, Object* object) {
    return openObject({AT_FDCWD, path.text().c_str(), true}, object);
}

int openObject(const ObjectAddress& address, Object* object) {
    object->descriptor = openAnchor(address);
    if (!object->descriptor) return errno;
    const int descriptor = object->descriptor.get();
    return examineOpen(descriptor, objectStatxMask(), &object->status) ? 0 : errno;
}

bool meansMissing(int error) noexcept {
    return error == ENOENT || error == ENOTDIR || error == ELOOP || error == ENAMETOOLONG;
}

int checkType(const Entry& entry, const Object& object) noexcept {
    return entry.mustBeDirectory() && !object.isDirectory() ? ENOTDIR : 0;
}

UniqueFd openForListing(int directory) noexcept {
    return openDirectoryAt(directory, ".");
}

UniqueFd openOnSameMount(int parent, const char* name) noexcept {
    UniqueFd opened = openForListing(parent, name, RESOLVE_NO_XDEV | RESOLVE_NO_SYMLINKS);
    if (!opened && errno == ENOSYS) return openAndCompareMounts(parent, name);
    return opened;
}

UniqueFd openResolvedDirectory(const char* path) noexcept {
    UniqueFd opened = openForListing(AT_FDCWD, path, RESOLVE_NO_SYMLINKS);
    // Kernels before 5.6, and sandboxes that block the call.
    if (!opened && (errno == ENOSYS || errno == EPERM)) opened.reset(::open(path, kListingFlags));
    return opened;
}

unsigned objectStatxMask() noexcept {
    return STATX_TYPE | STATX_MODE | STATX_UID | STATX_GID | STATX_INO | STATX_BTIME | STATX_MNT_ID;
}

ObjectIdentity identityOf(const struct statx& attributes) noexcept {
    const bool tellsMount = (attributes.stx_mask & STATX_MNT_ID) != 0;
    return {deviceOf(attributes), attributes.stx_ino, attributes.stx_btime.tv_sec,
            attributes.stx_btime.tv_nsec, tellsMount ? attributes.stx_mnt_id : 0};
}

bool isSameObject(const struct statx& one, const struct statx& other) noexcept {
    return identityOf(one) == identityOf(other);
}

bool isSameMount(const struct statx& one, const struct statx& other) noexcept {
    if ((one.stx_mask & other.stx_mask & STATX_MNT_ID) != 0)
        return one.stx_mnt_id == other.stx_mnt_id;
    return one.stx_dev_major == other.stx_dev_major && one.stx_dev_minor == other.stx_dev_minor;
}

bool existsItself(const ObjectAddress& object) noexcept {
    struct stat status {};
    return ::fstatat(object.parent, object.name, &status, AT_SYMLINK_NOFOLLOW) == 0;
}

int renameExclusively(const ObjectAddress& from, const ObjectAddress& to) noexcept {
    if (::renameat2(from.parent, from.name, to.parent, to.name, RENAME_NOREPLACE) == 0) return 0;
    if (errno != EINVAL && errno != ENOSYS) return errno;
    // EINVAL also means that the file system lacks the flag. A directory moved into itself fails
    // again below.
    if (existsItself(to)) return EEXIST;
    return ::renameat(from.parent, from.name, to.parent, to.name) == 0 ? 0 : errno;
}

int syncDirectory(int directory) noexcept {
    const UniqueFd opened = openForListing(directory);
    // A FUSE or network file system may deny root reading.
    if (!opened) return errno == EACCES || errno == EPERM ? 0 : errno;
    return syncObject(opened.get());
}

int syncObject(int descriptor) noexcept {
    if (::fsync(descriptor) == 0) return 0;
    return meansNoSync(errno) ? 0 : errno;
}

}  // namespace corvalen
