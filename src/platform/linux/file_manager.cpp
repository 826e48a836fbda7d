// SPDX-License-Identifier: MIT
#include "platform/file_manager.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "foundation/path.hpp"
#include "foundation/write_all.hpp"
#include "platform/linux/object_copy.hpp"

namespace corvalen {
namespace {

constexpr mode_t kPrivateFile = 0600;
constexpr mode_t kPrivateFolder = 0700;

bool failReading(ErrorRef* out, int error, std::string_view path) {
    if (out != nullptr) *out = makeFileError(FileAccess::read, error, path);
    return false;
}

bool failWriting(ErrorRef* out, int error, std::string_view path) {
    if (out != nullptr) *out = makeFileError(FileAccess::write, error, path);
    return false;
}

bool existsItself(const std::string& path) noexcept {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

/// Owner before mode: a change of owner clears the set-ID bits. The mode is set although it was
/// given at the making, where a default access list or a set-group-ID folder may have changed it.
bool applyCreationAttributes(int fd, const CreationAttributes& attributes) noexcept {
    return ::fchown(fd, attributes.owner, attributes.group) == 0 &&
           ::fchmod(fd, attributes.permissions) == 0;
}

class KernelFileManager : public FileManager {
  public:
    explicit KernelFileManager(FileFlags& flags) noexcept : _flags(flags) {}

    bool fileExistsAtPath(const std::string& path, bool* isDirectory) override {
        struct stat status {};
        const bool exists = ::stat(path.c_str(), &status) == 0;
        if (isDirectory != nullptr) *isDirectory = exists && S_ISDIR(status.st_mode);
        return exists;
    }

    std::optional<FileAttributes> attributesOfItemAtPath(const std::string& path,
                                                         ErrorRef* error) override {
        const UniqueFd anchor = openAnchor({AT_FDCWD, path.c_str()});
        FileAttributes attributes;
        const int code = anchor ? readAllAttributes(anchor.get(), _flags, &attributes) : errno;
        if (code == 0) return attributes;
        failReading(error, code, path);
        return std::nullopt;
    }

    bool setAttributes(const FileAttributes& attributes, const std::string& path,
                       ErrorRef* error) override {
        const UniqueFd anchor = openAnchor({AT_FDCWD, path.c_str()});
        if (!anchor) return failWriting(error, errno, path);
        struct stat status {};
        if (::fstat(anchor.get(), &status) != 0) return failWriting(error, errno, path);
        if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode))
            return failWriting(error, S_ISLNK(status.st_mode) ? ELOOP : EINVAL, path);
        const int code = applyAllAttributes(anchor.get(), _flags, attributes, Dates::leave);
        return code == 0 || failWriting(error, code, path);
    }

    bool createDirectoryAtPath(const std::string& path, const CreationAttributes& attributes,
                               ErrorRef* error) override {
        if (::mkdir(path.c_str(), kPrivateFolder) != 0) return failWriting(error, errno, path);
        const UniqueFd folder(
            ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        const bool done = folder && applyCreationAttributes(folder.get(), attributes);
        return done || failWriting(error, errno, path);
    }

    bool createFileAtPath(const std::string& path, std::string_view contents,
                          const CreationAttributes& attributes) override {
        const UniqueFd file(::open(
            path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kPrivateFile));
        return file && writeAll(file.get(), contents) == 0 &&
               applyCreationAttributes(file.get(), attributes);
    }

    bool moveItemAtPath(const std::string& from, const std::string& to, ErrorRef* error) override {
        const int code = rename(from, to);
        if (code == EXDEV) return moveToOtherFileSystem(from, to, error);
        return code == 0 || failWriting(error, code, pathConcerned(code, from, to));
    }

    bool linkItemAtPath(const std::string& from, const std::string& to, ErrorRef* error) override {
        if (::linkat(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), 0) == 0) return true;
        const int code = errno;
        return failWriting(error, code, pathConcerned(code, from, to));
    }

    bool createSymbolicLinkAtPath(const std::string& path, const std::string& destination,
                                  ErrorRef* error) override {
        const bool done = ::symlink(destination.c_str(), path.c_str()) == 0;
        return done || failWriting(error, errno, path);
    }

    bool removeItem(const ObjectAddress& object, std::string_view path, ErrorRef* error) override {
        std::string failedPath;
        const int code = removeTree(object, &failedPath);
        return code == 0 || failWriting(error, code, appendPathComponent(path, failedPath));
    }

  private:
    /// 0 or an errno, EXDEV between file systems.
    static int rename(const std::string& from, const std::string& to) noexcept {
        if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0)
            return 0;
        if (errno != EINVAL && errno != ENOSYS) return errno;
        // EINVAL also means that the file system does not know the flag; a folder moved into
        // itself then fails again.
        if (existsItself(to)) return EEXIST;
        return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
    }

    static const std::string& pathConcerned(int code, const std::string& from,
                                            const std::string& to) noexcept {
        const bool aboutDestination =
            code == EEXIST || code == ENOSPC || (code == ENOENT && existsItself(from));
        return aboutDestination ? to : from;
    }

    bool moveToOtherFileSystem(const std::string& from, const std::string& to, ErrorRef* error) {
        const ObjectAddress source{AT_FDCWD, from.c_str()};
        const ObjectAddress destination{AT_FDCWD, to.c_str()};
        struct statx status {};
        if (::statx(AT_FDCWD, from.c_str(), AT_SYMLINK_NOFOLLOW, STATX_TYPE, &status) != 0)
            return failWriting(error, errno, from);
        std::uint32_t flags = 0;
        (void)_flags.readFlags(source, status, &flags);
        // As within one file system: what is locked does not move.
        if (flags != 0) return failWriting(error, EPERM, from);
        bool created = false;
        std::string failedPath;
        if (const int code = copyTree(source, destination, _flags, &created); code != 0) {
            if (created) (void)removeTree(destination, &failedPath);
            return failWriting(error, code, pathConcerned(code, from, to));
        }
        const int code = removeTree(source, &failedPath);
        return code == 0 || failWriting(error, code, appendPathComponent(from, failedPath));
    }

    FileFlags& _flags;
};

}  // namespace

std::unique_ptr<FileManager> makeFileManager(FileFlags& flags) {
    return std::make_unique<KernelFileManager>(flags);
}

}  // namespace corvalen
