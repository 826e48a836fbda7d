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
/// apparmorfs; missing in <linux/magic.h>.
constexpr long kAppArmorMagic = 0x5a3c69f0;

/// Returns whether links of this file system may lead to an object directly instead of naming a
/// path.
bool hasMagicLinks(Descriptor directory) noexcept {
    struct statfs fileSystem {};
    if (::fstatfs(directory.get(), &fileSystem) != 0) return true;
    return fileSystem.f_type == PROC_SUPER_MAGIC || fileSystem.f_type == kAppArmorMagic;
}

Result<std::string> readLinkText(Descriptor link) {
    std::array<char, PATH_MAX> buffer;
    const ssize_t length = ::readlinkat(link.get(), "", buffer.data(), buffer.size());
    if (length < 0) return failure(errno);
    // Targets are shorter on Linux: a full buffer may be truncated.
    if (static_cast<std::size_t>(length) == buffer.size()) return failure(ENAMETOOLONG);
    return std::string(buffer.data(), static_cast<std::size_t>(length));
}

Result<UniqueFd> openForListing(Descriptor parent, const char* path,
                                std::uint64_t resolve) noexcept {
    open_how how{};
    how.flags = static_cast<unsigned>(kListingFlags);
    how.resolve = resolve;
    return openedBy(::syscall(SYS_openat2, parent.get(), path, &how, sizeof how));
}

/// Without openat2(2): compares mounts after opening.
Result<UniqueFd> openAndCompareMounts(Descriptor parent, const char* name) noexcept {
    Result<UniqueFd> opened = openDirectoryAt(parent, name);
    if (!opened) return opened;
    struct statx above {};
    struct statx below {};
    if (!examineOpen(parent, objectStatxMask(), &above) ||
        !examineOpen(*opened, objectStatxMask(), &below)) {
        return failure(errno);
    }
    if (!isSameMount(above, below)) return failure(EXDEV);
    return opened;
}

bool meansNoSync(SystemError error) noexcept {
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
        ::readlink(DescriptorPath(_parent).c_str(), buffer.data(), buffer.size());
    if (length <= 0 || static_cast<std::size_t>(length) == buffer.size())
        return std::string(otherwise);
    std::string path(buffer.data(), static_cast<std::size_t>(length));
    if (path != "/") path.push_back('/');
    return path + _name.text();
}

Result<Entry> openEntry(const ClientPath& path) {
    return openEntryAt(kWorkingDirectory, path.text());
}

Result<Entry> openEntryAt(Descriptor base, std::string_view path) {
    const std::size_t last = path.find_last_not_of('/');
    const bool onlySlashes = last == std::string_view::npos;
    const std::string_view text = path.substr(0, onlySlashes ? 0 : last + 1);
    const std::size_t nameAt = text.rfind('/') + 1;  // 0 without a slash
    std::string directory(text.substr(0, nameAt));
    if (directory.empty()) directory = onlySlashes ? "/" : ".";
    Result<UniqueFd> parent = openedBy(::openat(base.get(), directory.c_str(), kParentFlags));
    if (!parent) return failure(parent.error());
    Entry entry(*std::move(parent),
                Component(onlySlashes ? std::string_view(".") : text.substr(nameAt)));
    entry._mustBeDirectory = text.size() < path.size();
    entry._isRoot = onlySlashes;
    return entry;
}

Result<LocatedObject> openEntryBehindLinks(const ClientPath& path) {
    Result<Entry> entry = openEntry(path);
    bool mustBeDirectory = false;
    for (int links = 0; entry && links <= kMostLinks; ++links) {
        mustBeDirectory = mustBeDirectory || entry->mustBeDirectory();
        Result<Object> object = openObject(entry->address());
        if (!object) return failure(object.error());
        if (!object->isLink()) {
            if (mustBeDirectory && !object->isDirectory()) return failure(ENOTDIR);
            return LocatedObject{*std::move(entry), *std::move(object)};
        }
        if (hasMagicLinks(entry->parent())) return failure(ELOOP);
        const Result<std::string> text = readLinkText(object->descriptor);
        if (!text) return failure(text.error());
        entry = openEntryAt(entry->parent(), *text);
    }
    return entry ? failure(ELOOP) : failure(entry.error());
}

Result<Object> openObject(const ClientPath& path) {
    return openObject({kWorkingDirectory, path.text().c_str(), true});
}

Result<Object> openObject(const ObjectAddress& address) {
    Result<UniqueFd> anchor = openAnchor(address);
    if (!anchor) return failure(anchor.error());
    Object object{*std::move(anchor)};
    if (!examineOpen(object.descriptor, objectStatxMask(), &object.status)) return failure(errno);
    return object;
}

bool meansMissing(SystemError error) noexcept {
    return error == ENOENT || error == ENOTDIR || error == ELOOP || error == ENAMETOOLONG;
}

Result<> checkType(const Entry& entry, const Object& object) noexcept {
    if (entry.mustBeDirectory() && !object.isDirectory()) return failure(ENOTDIR);
    return {};
}

Result<UniqueFd> openForListing(Descriptor directory) noexcept {
    return openDirectoryAt(directory, ".");
}

Result<UniqueFd> openOnSameMount(Descriptor parent, const char* name) noexcept {
    Result<UniqueFd> opened = openForListing(parent, name, RESOLVE_NO_XDEV | RESOLVE_NO_SYMLINKS);
    if (failedWith(opened, ENOSYS)) return openAndCompareMounts(parent, name);
    return opened;
}

Result<UniqueFd> openResolvedDirectory(const char* path) noexcept {
    Result<UniqueFd> opened = openForListing(kWorkingDirectory, path, RESOLVE_NO_SYMLINKS);
    // Kernels before 5.6, and sandboxes that block the call.
    if (failedWith(opened, ENOSYS) || failedWith(opened, EPERM))
        return openedBy(::open(path, kListingFlags));
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
    return ::fstatat(object.parent.get(), object.name, &status, AT_SYMLINK_NOFOLLOW) == 0;
}

Result<> renameExclusively(const ObjectAddress& from, const ObjectAddress& to) noexcept {
    const Result<> renamed = resultOf(
        ::renameat2(from.parent.get(), from.name, to.parent.get(), to.name, RENAME_NOREPLACE));
    if (!failedWith(renamed, EINVAL) && !failedWith(renamed, ENOSYS)) return renamed;
    // EINVAL also means that the file system lacks the flag. A directory moved into itself fails
    // again below.
    if (existsItself(to)) return failure(EEXIST);
    return resultOf(::renameat(from.parent.get(), from.name, to.parent.get(), to.name));
}

Result<> syncDirectory(Descriptor directory) noexcept {
    const Result<UniqueFd> opened = openForListing(directory);
    if (opened) return syncObject(*opened);
    // A FUSE or network file system may deny root reading.
    if (failedWith(opened, EACCES) || failedWith(opened, EPERM)) return {};
    return failure(opened.error());
}

Result<> syncObject(Descriptor descriptor) noexcept {
    return ignoring(meansNoSync, resultOf(::fsync(descriptor.get())));
}

}  // namespace corvalen
