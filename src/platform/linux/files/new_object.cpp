// SPDX-License-Identifier: MIT
#include "platform/files/new_object.hpp"

#include <fcntl.h>
#include <fmt/core.h>
#include <linux/magic.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <utility>

#include "platform/files/directory_reader.hpp"
#include "platform/files/entry.hpp"

namespace corvalen {
namespace {

constexpr mode_t kPrivateFile = 0600;
constexpr mode_t kPrivateDirectory = 0700;
constexpr mode_t kPermissionBits = 07777;
constexpr unsigned kForOthers = 077;
constexpr int kFileFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr std::size_t kListingSize = 4096;

/// File systems that take timestamps from this machine's clock. statfs() returns their numbers
/// signed, on some machines in 32 bits.
constexpr std::array<std::uint32_t, 5> kLocalClocks = {
    EXT4_SUPER_MAGIC, XFS_SUPER_MAGIC, TMPFS_MAGIC, BTRFS_SUPER_MAGIC, F2FS_SUPER_MAGIC};

Result<> removeList(Descriptor object, const char* attribute) noexcept {
    const auto meansNone = [](SystemError error) {
        return error == ENODATA || error == EOPNOTSUPP;
    };
    return ignoring(meansNone, resultOf(::fremovexattr(object.get(), attribute)));
}

/// Removes inherited lists and sets the mode; the mode last, because a list changes it.
Result<> makePlain(Descriptor object, mode_t mode, bool isDirectory) noexcept {
    Result<> removed = removeList(object, "system.posix_acl_access");
    if (removed && isDirectory) removed = removeList(object, "system.posix_acl_default");
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
    const UniqueFd probe(::openat(parent.get(), name.c_str(), kFileFlags, kPrivateFile));
    if (!probe) return false;
    struct stat status {};
    const bool known = ::fstat(probe.get(), &status) == 0;
    (void)::unlinkat(parent.get(), name.c_str(), 0);
    return known && status.st_uid == found.stx_uid &&
           ((found.stx_mode & kForOthers) == 0 || (status.st_mode & kForOthers) != 0);
}

/// Checks that the opened directory is the one that mkdir(2) made, which returns no descriptor.
/// Only a process of the caller's user could make another that passes. ESTALE for another
/// directory.
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
        openedBy(::openat(where.parent.get(), where.name, kFileFlags, kPrivateFile));
    if (!made) return made;
    const Result<> plain = makePlain(*made, mode, false);
    if (plain) return made;
    (void)::unlinkat(where.parent.get(), where.name, 0);
    return failure(plain.error());
}

Result<UniqueFd> makeDirectory(const ObjectAddress& where, mode_t mode) {
    timespec begin{};
    (void)::clock_gettime(CLOCK_REALTIME_COARSE, &begin);
    if (::mkdirat(where.parent.get(), where.name, kPrivateDirectory) != 0) return failure(errno);
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
