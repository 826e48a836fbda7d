// SPDX-License-Identifier: MIT
#include "platform/files/object_address.hpp"

#include <fcntl.h>
#include <fmt/core.h>
#include <linux/magic.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <utility>

#include "platform/files/directory_reader.hpp"
#include "platform/files/entry.hpp"
#include "platform/linux/files/object_attributes.hpp"

namespace corvalen {

Result<UniqueFd> openAnchor(const ObjectAddress& object) noexcept {
    if (*object.name == '\0') return openedBy(::fcntl(object.parent.get(), F_DUPFD_CLOEXEC, 0));
    const int linkFlag = object.followLink ? 0 : O_NOFOLLOW;
    return openedBy(::openat(object.parent.get(), object.name, O_PATH | O_CLOEXEC | linkFlag));
}

DescriptorPath::DescriptorPath(Descriptor descriptor) noexcept : _text{} {
    (void)std::snprintf(_text, sizeof _text, "/proc/self/fd/%d", descriptor.get());
}

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

namespace {

constexpr unsigned kForOthers = 077;
constexpr int kFileFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr std::size_t kListingSize = 4096;

/// File systems that take timestamps from this machine's clock. statfs() returns their numbers
/// signed, on some machines in 32 bits.
constexpr std::array<std::uint32_t, 5> kLocalClocks = {
    EXT4_SUPER_MAGIC, XFS_SUPER_MAGIC, TMPFS_MAGIC, BTRFS_SUPER_MAGIC, F2FS_SUPER_MAGIC};

Result<> removeList(Descriptor object, const char* attribute) noexcept {
    return ignoring(meansNoList, resultOf(::fremovexattr(object.get(), attribute)));
}

/// Removes inherited lists and sets the mode; the mode last, because a list changes it.
Result<> makePlain(Descriptor object, mode_t mode, bool isDirectory) noexcept {
    Result<> removed = removeList(object, kAccessListAttribute);
    if (removed && isDirectory) removed = removeList(object, kDefaultListAttribute);
    if (!removed) return removed;
    struct stat status {};
    if (::fstat(object.get(), &status) != 0) return failure(errno);
    if ((status.st_mode & kPermissionBits) == mode) return {};
    return resultOf(::fchmod(object.get(), mode));
}

/// ESTALE if the directory is not empty.
Result<> checkEmpty(Descriptor directory) noexcept {
    alignas(8) std::array<std::byte, kListingSize> buffer;
    int entries = 0;
    for (;;) {
        const std::ptrdiff_t length = readDirectoryEntries(directory, buffer);
        if (length == 0 && seekDirectory(directory, 0)) return {};
        if (length <= 0) return failure(errno);
        for (std::ptrdiff_t at = 0; at < length; ++entries) {
            const auto rest =
                std::span<const std::byte>(buffer).subspan(static_cast<std::size_t>(at));
            at += static_cast<std::ptrdiff_t>(directoryEntryAt(rest).length);
        }
        if (entries > 2) return failure(ESTALE);  // more than "." and ".."
    }
}

bool hasLocalClock(Descriptor object) noexcept {
    struct statfs fileSystem {};
    return ::fstatfs(object.get(), &fileSystem) == 0 &&
           std::count(kLocalClocks.begin(), kLocalClocks.end(),
                      static_cast<std::uint32_t>(fileSystem.f_type)) != 0;
}

bool isBornBefore(const struct statx& status, const timespec& time) noexcept {
    if (status.stx_btime.tv_sec != time.tv_sec) return status.stx_btime.tv_sec < time.tv_sec;
    return std::cmp_less(status.stx_btime.tv_nsec, time.tv_nsec);
}

/// Returns whether the file system gives new objects of root another owner or opens them to others,
/// as FAT and NTFS do, which store no owners and modes. Creates a file to find out: only exclusive
/// creation ensures that the examined object is the created one.
bool changesNewObjects(Descriptor parent, const struct statx& found) {
    const std::string name = temporaryName();
    const UniqueFd probe(::openat(parent.get(), name.c_str(), kFileFlags, kPrivateFileMode));
    if (!probe) return false;
    struct stat status {};
    const bool known = ::fstat(probe.get(), &status) == 0;
    (void)::unlinkat(parent.get(), name.c_str(), 0);
    return known && status.st_uid == found.stx_uid &&
           ((found.stx_mode & kForOthers) == 0 || (status.st_mode & kForOthers) != 0);
}

/// Checks that the opened directory is the one that mkdir(2) made: the call returns no descriptor.
/// Only a process of the caller's user could make another directory that passes. Fails with ESTALE
/// for any other.
Result<> checkNew(Descriptor parent, Descriptor directory, const timespec& begin) {
    struct statx status {};
    if (!examineOpen(directory, objectStatxMask(), &status)) return failure(errno);
    const bool isPrivate = status.stx_uid == ::geteuid() && (status.stx_mode & kForOthers) == 0;
    if (!isPrivate && !changesNewObjects(parent, status)) return failure(ESTALE);
    if (status.stx_uid != ::geteuid()) return {};
    const bool datedHere = (status.stx_mask & STATX_BTIME) != 0 && hasLocalClock(directory);
    if (datedHere && isBornBefore(status, begin)) return failure(ESTALE);
    return checkEmpty(directory);
}

}  // namespace

Result<UniqueFd> makeFile(const ObjectAddress& where, mode_t mode) {
    Result<UniqueFd> made =
        openedBy(::openat(where.parent.get(), where.name, kFileFlags, kPrivateFileMode));
    if (!made) return made;
    const Result<> plain = makePlain(*made, mode, false);
    if (plain) return made;
    (void)::unlinkat(where.parent.get(), where.name, 0);
    return failure(plain.error());
}

Result<UniqueFd> makeDirectory(const ObjectAddress& where, mode_t mode) {
    timespec begin{};
    (void)::clock_gettime(CLOCK_REALTIME_COARSE, &begin);
    if (::mkdirat(where.parent.get(), where.name, kPrivateFolderMode) != 0) return failure(errno);
    Result<UniqueFd> made = openedBy(::openat(where.parent.get(), where.name, kDirectoryFlags));
    Result<> finished = made.and_then(
        [&](const UniqueFd& directory) { return checkNew(where.parent, directory, begin); });
    if (failedWith(finished, ENOTDIR) || failedWith(finished, ELOOP)) finished = failure(ESTALE);
    if (finished) finished = makePlain(*made, mode, true);
    if (finished) return made;
    if (!failedWith(finished, ESTALE))
        (void)::unlinkat(where.parent.get(), where.name, AT_REMOVEDIR);
    return failure(finished.error());
}

std::string temporaryName() {
    std::uint64_t random = 0;
    // If getrandom(2) fails, the pid will do: callers create the name exclusively.
    if (::getrandom(&random, sizeof random, 0) < 0) random = static_cast<std::uint64_t>(::getpid());
    return fmt::format(".corvalen-{:016x}", random);
}

}  // namespace corvalen
