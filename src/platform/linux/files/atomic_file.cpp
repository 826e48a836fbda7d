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

#include "foundation/borrowed_descriptor.hpp"
#include "foundation/path.hpp"
#include "foundation/property_list.hpp"
#include "platform/linux/files/object_attributes.hpp"

namespace corvalen {
namespace {

constexpr mode_t kModeOfClasses = 0777;
constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr std::chrono::milliseconds kLockPause{20};

/// The new contents of a file. The file is unnamed until they are complete (open(2), O_TMPFILE), so
/// a crash leaves nothing behind; then it briefly has a fixed name beside the target, from the
/// start if the file system lacks unnamed files. Writers hold a lock, so an existing file of that
/// name is a killed writer's and is replaced.
class TemporaryFile {
  public:
    /// Mode 0600: nobody else can open the file before its final mode is set.
    Result<> create(Descriptor folder, const std::string& replaced) {
        _folder = folder;
        _name = "." + replaced + ".new";
        _fd.reset(::openat(folder.get(), ".", O_WRONLY | O_TMPFILE | O_CLOEXEC, 0600));
        if (_fd) return {};
        return takeName([this] {
            _fd.reset(::openat(_folder.get(), _name.c_str(),
                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
            return static_cast<bool>(_fd);
        });
    }
    ~TemporaryFile() {
        if (_isNamed) ::unlinkat(_folder.get(), _name.c_str(), 0);
    }
    TemporaryFile() = default;
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    [[nodiscard]] Descriptor fd() const noexcept { return _fd; }

    /// linkat(2) cannot replace a file: this one first gets its fixed name, then rename(2) replaces
    /// the target.
    Result<> renameTo(const std::string& name) {
        const DescriptorPath self(_fd);
        const auto link = [&] {
            return ::linkat(AT_FDCWD, self.c_str(), _folder.get(), _name.c_str(),
                            AT_SYMLINK_FOLLOW) == 0;
        };
        if (!_isNamed) {
            if (const Result<> taken = takeName(link); !taken) return taken;
        }
        if (::renameat(_folder.get(), _name.c_str(), _folder.get(), name.c_str()) != 0)
            return failure(errno);
        _isNamed = false;
        return {};
    }

  private:
    /// Calls `take`, again after removing a leftover.
    template <class Take>
    Result<> takeName(const Take& take) {
        _isNamed = take() ||
                   (errno == EEXIST && ::unlinkat(_folder.get(), _name.c_str(), 0) == 0 && take());
        if (!_isNamed) return failure(errno);
        return {};
    }

    UniqueFd _fd;
    std::string _name;
    Descriptor _folder;
    bool _isNamed = false;
};

/// The kernel sets the attributes of security modules; unprivileged processes cannot.
bool mayStayBehind(const std::string& attribute, SystemError error) noexcept {
    return error == EOPNOTSUPP || (error == EPERM && attribute.starts_with("security."));
}

Result<> copyAttribute(Descriptor from, Descriptor to, const std::string& name) {
    const Result<std::vector<std::uint8_t>> value = getAttribute({from, ""}, name.c_str());
    if (failedWith(value, ENODATA)) return {};  // removed meanwhile
    if (!value) return failure(value.error());
    return setAttribute({to, ""}, name.c_str(),
                        {reinterpret_cast<const char*>(value->data()), value->size()});
}

/// Copies the extended attributes of an open file, the access list included: without it the group
/// would get the rights of the list's mask.
Result<> copyExtendedAttributes(Descriptor from, Descriptor to) {
    const Result<std::vector<std::string>> names = listAttributes({from, ""});
    if (failedWith(names, EOPNOTSUPP)) return {};
    if (!names) return failure(names.error());
    // The new file may have inherited a list that the old one lacks.
    const Result<> removed = removeAttribute({to, ""}, kAccessListAttribute);
    if (!removed && !meansNoList(removed.error())) return removed;
    for (const std::string& name : *names) {
        const Result<> copied = copyAttribute(from, to, name);
        if (!copied && !mayStayBehind(name, copied.error())) return copied;
    }
    return {};
}

/// Opens the subdirectory `name`; creates it if missing. mkdir(2) applies the file creation mask,
/// so the mode is set again.
Result<UniqueFd> openSubfolder(Descriptor parent, const std::string& name, mode_t mode,
                               bool create) {
    const auto open = [&] { return openedBy(::openat(parent.get(), name.c_str(), kFolderFlags)); };
    Result<UniqueFd> folder = open();
    if (!failedWith(folder, ENOENT) || !create) return folder;
    const Result<> made = resultOf(::mkdirat(parent.get(), name.c_str(), mode));
    if (!made && !failedWith(made, EEXIST)) return failure(made.error());
    folder = open();
    if (!made) return folder;
    if (folder && ::fchmod(folder->get(), mode) != 0) folder = failure(errno);
    // Otherwise it would keep the wrong mode.
    if (!folder) (void)::unlinkat(parent.get(), name.c_str(), AT_REMOVEDIR);
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

Result<UniqueFd> openFolderBeneath(Descriptor base, std::string_view relativePath, mode_t mode,
                                   bool create) {
    Result<UniqueFd> folder = failure(EINVAL);
    while (!relativePath.empty()) {
        const std::string name(relativePath.substr(0, relativePath.find('/')));
        relativePath.remove_prefix(std::min(name.size() + 1, relativePath.size()));
        folder = openSubfolder(folder ? Descriptor(*folder) : base, name, mode, create);
        if (!folder) break;
    }
    return folder;
}

Result<UniqueFd> openStoreFolder(const std::string& path, mode_t mode) {
    const UniqueFd parent(
        ::open(deleteLastPathComponent(path).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!parent) return failure(errno);
    return openFolderBeneath(parent, lastPathComponent(path), mode, true);
}

Result<std::string> readFile(Descriptor folder, const std::string& name, std::size_t limit) {
    const UniqueFd file(::openat(folder.get(), name.c_str(),
                                 O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat attributes {};
    if (!file || ::fstat(file.get(), &attributes) != 0) return failure(errno);
    if (!S_ISREG(attributes.st_mode)) return failure(EINVAL);
    if (std::cmp_greater(attributes.st_size, limit)) return failure(EFBIG);
    std::string contents(static_cast<std::size_t>(attributes.st_size), '\0');
    std::size_t length = 0;
    while (length < contents.size()) {
        const ssize_t count =
            ::read(file.get(), contents.data() + length, contents.size() - length);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return failure(errno);
        if (count == 0) break;
        length += static_cast<std::size_t>(count);
    }
    contents.resize(length);
    return contents;
}

Result<> replaceFile(Descriptor folder, const std::string& name, std::string_view contents,
                     mode_t mode) {
    const UniqueFd old(::openat(folder.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!old && errno != ENOENT) return failure(errno);
    struct stat existing {};
    if (old && ::fstat(old.get(), &existing) != 0) return failure(errno);
    if (old && !S_ISREG(existing.st_mode))
        return failure(S_ISLNK(existing.st_mode) ? ELOOP : EINVAL);

    TemporaryFile temporary;
    if (const Result<> created = temporary.create(folder, name); !created) return created;
    if (const Result<> written = writeAll(temporary.fd(), contents); !written) return written;
    struct stat made {};
    if (::fstat(temporary.fd().get(), &made) != 0) return failure(errno);
    const bool sameOwner = made.st_uid == existing.st_uid && made.st_gid == existing.st_gid;
    if (old && !sameOwner &&
        ::fchown(temporary.fd().get(), existing.st_uid, existing.st_gid) != 0) {
        return failure(errno);
    }
    if (old) {
        if (const Result<> copied = copyExtendedAttributes(old, temporary.fd()); !copied)
            return copied;
    }
    // With an access list, the group bits are its mask; they stay the same too.
    const mode_t finalMode = old ? existing.st_mode & kModeOfClasses : mode;
    if (::fchmod(temporary.fd().get(), finalMode) != 0) return failure(errno);
    if (::fsync(temporary.fd().get()) != 0) return failure(errno);
    if (const Result<> renamed = temporary.renameTo(name); !renamed) return renamed;
    return resultOf(::fsync(folder.get()));
}

Result<UniqueFd> lockFile(Descriptor folder, const std::string& name,
                          std::optional<std::chrono::milliseconds> longestWait) {
    UniqueFd file(::openat(folder.get(), name.c_str(),
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
    return failure(errno);
}

std::optional<Dictionary> readPropertyListFile(Descriptor folder, const std::string& name) {
    const Result<std::string> contents = readFile(folder, name, kMaximumPropertyListFileSize);
    if (failedWith(contents, ENOENT)) return Dictionary();
    if (!contents) return std::nullopt;
    // A crash of another program may leave an empty file; refusing it would block the domain for
    // good.
    if (contents->empty()) return Dictionary();
    auto value = propertyListFromData(*contents);
    Dictionary* dictionary = value ? value->dictionary() : nullptr;
    if (dictionary == nullptr) return std::nullopt;
    return std::move(*dictionary);
}

Result<> writePropertyListFile(Descriptor folder, const std::string& name,
                               const Dictionary& dictionary, mode_t mode) {
    // Values that XML cannot carry, or too deep ones, would make the file unreadable for good.
    const auto contents = xmlPropertyList(Value(dictionary));
    if (!contents) return failure(EINVAL);
    if (contents->size() > kMaximumPropertyListFileSize) return failure(EFBIG);
    return replaceFile(folder, name, *contents, mode);
}

}  // namespace corvalen
