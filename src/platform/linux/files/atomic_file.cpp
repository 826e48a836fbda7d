// SPDX-License-Identifier: MIT
#include "platform/files/atomic_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <thread>
#include <utility>
#include <vector>

#include "foundation/path.hpp"
#include "foundation/write_all.hpp"
#include "platform/linux/files/object_attributes.hpp"

namespace corvalen {
namespace {

constexpr mode_t kPermissionBits = 0777;
constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr std::chrono::milliseconds kLockPause{20};

/// The new contents of a file. The file is unnamed until they are complete (open(2), O_TMPFILE), so
/// a crash leaves nothing behind; then it briefly has a fixed name beside the target, from the
/// start if the file system lacks unnamed files. Writers hold a lock, so an existing file of that
/// name is a killed writer's and is replaced.
class TemporaryFile {
  public:
    /// Returns 0 or an errno. Mode 0600: nobody else can open the file before its final mode is
    /// set.
    int create(int folder, const std::string& replaced) {
        _folder = folder;
        _name = "." + replaced + ".new";
        _fd.reset(::openat(folder, ".", O_WRONLY | O_TMPFILE | O_CLOEXEC, 0600));
        if (_fd) return 0;
        return takeName([this] {
            _fd.reset(::openat(_folder, _name.c_str(),
                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
            return static_cast<bool>(_fd);
        });
    }
    ~TemporaryFile() {
        if (_isNamed) ::unlinkat(_folder, _name.c_str(), 0);
    }
    TemporaryFile() = default;
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    [[nodiscard]] int fd() const noexcept { return _fd.get(); }

    /// Returns 0 or an errno. linkat(2) cannot replace a file: this one first gets its fixed name,
    /// then rename(2) replaces the target.
    int renameTo(const std::string& name) {
        const DescriptorPath self(_fd.get());
        const auto link = [&] {
            return ::linkat(AT_FDCWD, self.c_str(), _folder, _name.c_str(), AT_SYMLINK_FOLLOW) == 0;
        };
        const int error = _isNamed ? 0 : takeName(link);
        if (error != 0) return error;
        if (::renameat(_folder, _name.c_str(), _folder, name.c_str()) != 0) return errno;
        _isNamed = false;
        return 0;
    }

  private:
    /// Calls `take`, again after removing a leftover. Returns 0 or an errno.
    template <class Take>
    int takeName(const Take& take) {
        _isNamed =
            take() || (errno == EEXIST && ::unlinkat(_folder, _name.c_str(), 0) == 0 && take());
        return _isNamed ? 0 : errno;
    }

    UniqueFd _fd;
    std::string _name;
    int _folder = -1;
    bool _isNamed = false;
};

constexpr const char* kAccessList = "system.posix_acl_access";

/// The kernel sets the attributes of security modules; unprivileged processes cannot.
bool mayStayBehind(const std::string& attribute, int error) noexcept {
    return error == EOPNOTSUPP || (error == EPERM && attribute.starts_with("security."));
}

/// Copies the extended attributes of an open file, the access list included: without it the group
/// would get the rights of the list's mask. Returns 0 or an errno.
int copyExtendedAttributes(int from, int to) {
    std::vector<std::string> names;
    int error = listAttributes({from, ""}, &names);
    if (error != 0) return error == EOPNOTSUPP ? 0 : error;
    // The new file may have inherited a list that the old one lacks.
    error = removeAttribute({to, ""}, kAccessList);
    if (error != 0 && error != ENODATA && error != EOPNOTSUPP) return error;
    for (const std::string& name : names) {
        std::vector<std::uint8_t> value;
        error = getAttribute({from, ""}, name.c_str(), &value);
        if (error == ENODATA) continue;  // removed meanwhile
        if (error == 0) {
            error = setAttribute({to, ""}, name.c_str(),
                                 {reinterpret_cast<const char*>(value.data()), value.size()});
        }
        if (error != 0 && !mayStayBehind(name, error)) return error;
    }
    return 0;
}

/// Opens the subdirectory `name`; creates it if missing. mkdir(2) applies the file creation mask,
/// so the mode is set again.
UniqueFd openSubfolder(int parent, const std::string& name, mode_t mode, bool create) {
    UniqueFd folder(::openat(parent, name.c_str(), kFolderFlags));
    if (folder || errno != ENOENT || !create) return folder;
    const bool made = ::mkdirat(parent, name.c_str(), mode) == 0;
    if (!made && errno != EEXIST) return folder;
    folder.reset(::openat(parent, name.c_str(), kFolderFlags));
    if (folder && made && ::fchmod(folder.get(), mode) != 0) folder.reset();
    if (!folder && made) {
        // Otherwise it would keep the wrong mode.
        const int error = errno;
        (void)::unlinkat(parent, name.c_str(), AT_REMOVEDIR);
        errno = error;
    }
    return folder;
}

}  // namespace

bool isSafeFileName(std::string_view name) noexcept {
    if (name.empty() || name.size() > kLongestSafeFileName || name == "." || name == "..") {
        return false;
    }
    return std::none_of(name.begin(), name.end(), [](char character) {
        const auto byte = static_cast<unsigned char>(character);
        return byte < 0x20 || byte == 0x7f || byte == '/';
    });
}

UniqueFd openFolderBeneath(int base, std::string_view relativePath, mode_t mode, bool create,
                           int* errnoValue) {
    UniqueFd folder;
    *errnoValue = EINVAL;
    while (!relativePath.empty()) {
        const std::string name(relativePath.substr(0, relativePath.find('/')));
        relativePath.remove_prefix(std::min(name.size() + 1, relativePath.size()));
        folder = openSubfolder(folder ? folder.get() : base, name, mode, create);
        if (!folder) {
            *errnoValue = errno;
            break;
        }
    }
    return folder;
}

UniqueFd openStoreFolder(const std::string& path, mode_t mode, int* errnoValue) {
    const UniqueFd parent(
        ::open(deleteLastPathComponent(path).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!parent) {
        *errnoValue = errno;
        return {};
    }
    return openFolderBeneath(parent.get(), lastPathComponent(path), mode, true, errnoValue);
}

int readFile(int folder, const std::string& name, std::size_t limit, std::string* contents) {
    const UniqueFd file(
        ::openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat attributes {};
    if (!file || ::fstat(file.get(), &attributes) != 0) return errno;
    if (!S_ISREG(attributes.st_mode)) return EINVAL;
    if (std::cmp_greater(attributes.st_size, limit)) return EFBIG;
    const auto size = static_cast<std::size_t>(attributes.st_size);
    contents->resize(size);
    std::size_t length = 0;
    while (length < size) {
        const ssize_t count = ::read(file.get(), contents->data() + length, size - length);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return errno;
        if (count == 0) break;
        length += static_cast<std::size_t>(count);
    }
    contents->resize(length);
    return 0;
}

int replaceFile(int folder, const std::string& name, std::string_view contents, mode_t mode) {
    const UniqueFd old(::openat(folder, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!old && errno != ENOENT) return errno;
    struct stat existing {};
    if (old && ::fstat(old.get(), &existing) != 0) return errno;
    if (old && !S_ISREG(existing.st_mode)) return S_ISLNK(existing.st_mode) ? ELOOP : EINVAL;

    TemporaryFile temporary;
    if (const int error = temporary.create(folder, name); error != 0) return error;
    if (const int error = writeAll(temporary.fd(), contents); error != 0) return error;
    struct stat made {};
    if (::fstat(temporary.fd(), &made) != 0) return errno;
    const bool sameOwner = made.st_uid == existing.st_uid && made.st_gid == existing.st_gid;
    if (old && !sameOwner && ::fchown(temporary.fd(), existing.st_uid, existing.st_gid) != 0) {
        return errno;
    }
    if (old) {
        if (const int error = copyExtendedAttributes(old.get(), temporary.fd())) return error;
    }
    // With an access list, the group bits are its mask; they stay the same too.
    const mode_t finalMode = old ? existing.st_mode & kPermissionBits : mode;
    if (::fchmod(temporary.fd(), finalMode) != 0) return errno;
    if (::fsync(temporary.fd()) != 0) return errno;
    if (const int error = temporary.renameTo(name); error != 0) return error;
    return ::fsync(folder) == 0 ? 0 : errno;
}

UniqueFd lockFile(int folder, const std::string& name,
                  std::optional<std::chrono::milliseconds> longestWait, int* errnoValue) {
    UniqueFd file(::openat(folder, name.c_str(),
                           O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                           0600));
    struct flock whole {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    const auto begin = std::chrono::steady_clock::now();
    while (file) {
        if (::fcntl(file.get(), longestWait ? F_OFD_SETLK : F_OFD_SETLKW, &whole) == 0) return file;
        if (errno == EINTR) continue;
        const bool held = errno == EAGAIN || errno == EACCES;
        if (!held || !longestWait || std::chrono::steady_clock::now() - begin > *longestWait) break;
        std::this_thread::sleep_for(kLockPause);
    }
    *errnoValue = errno;
    return {};
}

}  // namespace corvalen
