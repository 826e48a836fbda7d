// SPDX-License-Identifier: MIT
#include "platform/linux/object_copy.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>

#include "platform/file_manager_tree.hpp"

namespace corvalen {
namespace {

/// Until it has its attributes, nobody else enters or opens what is being made.
constexpr mode_t kPrivateFile = 0600;
constexpr mode_t kPrivateFolder = 0700;
constexpr off_t kChunk = 8 << 20;

int copyRange(int in, int out, off_t from, off_t to) {
    if (::lseek(out, from, SEEK_SET) < 0) return errno;
    while (from < to) {
        const auto wanted = static_cast<std::size_t>(std::min(to - from, kChunk));
        const ssize_t sent = ::sendfile(out, in, &from, wanted);
        if (sent < 0 && errno != EINTR) return errno;
        if (sent == 0) return 0;  // cut short meanwhile
    }
    return 0;
}

/// Copies what is data and leaves holes as holes.
int copyContents(int in, int out, off_t size) {
    off_t position = 0;
    while (position < size) {
        const off_t data = ::lseek(in, position, SEEK_DATA);
        if (data < 0 && errno == ENXIO) break;
        if (data < 0) return errno;
        const off_t hole = ::lseek(in, data, SEEK_HOLE);
        if (hole < 0) return errno;
        if (const int error = copyRange(in, out, data, hole); error != 0) return error;
        position = hole;
    }
    return ::ftruncate(out, size) == 0 ? 0 : errno;
}

int makeFile(int anchor, const ObjectAddress& to, const struct statx& status, UniqueFd* made) {
    const DescriptorPath path(anchor);
    const UniqueFd in(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!in) return errno;
    made->reset(::openat(to.parent, to.name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                         kPrivateFile));
    if (!*made) return errno;
    return copyContents(in.get(), made->get(), static_cast<off_t>(status.stx_size));
}

int makeLink(int anchor, const ObjectAddress& to) {
    std::array<char, PATH_MAX> target{};
    const ssize_t length = ::readlinkat(anchor, "", target.data(), target.size() - 1);
    if (length < 0) return errno;
    return ::symlinkat(target.data(), to.parent, to.name) == 0 ? 0 : errno;
}

int makeSpecial(const struct statx& status, const ObjectAddress& to) {
    const mode_t mode = (status.stx_mode & S_IFMT) | kPrivateFile;
    const dev_t device = makedev(status.stx_rdev_major, status.stx_rdev_minor);
    return ::mknodat(to.parent, to.name, mode, device) == 0 ? 0 : errno;
}

/// Copies one object without its contents; a folder gets its attributes later, when it is full.
int copyObject(const ObjectAddress& from, const ObjectAddress& to, FileFlags& flags, bool* isFolder,
               bool* created) {
    const UniqueFd anchor = openAnchor(from);
    if (!anchor) return errno;
    FileAttributes attributes;
    int error = readAllAttributes(anchor.get(), flags, &attributes);
    if (error != 0) return error;
    const mode_t mode = attributes.status.stx_mode;
    *isFolder = S_ISDIR(mode);
    UniqueFd made;
    if (S_ISDIR(mode)) {
        error = ::mkdirat(to.parent, to.name, kPrivateFolder) == 0 ? 0 : errno;
    } else if (S_ISREG(mode)) {
        error = makeFile(anchor.get(), to, attributes.status, &made);
    } else {
        error = S_ISLNK(mode) ? makeLink(anchor.get(), to) : makeSpecial(attributes.status, to);
    }
    *created = error == 0 || made;
    if (error != 0 || *isFolder) return error;
    if (!made) made = openAnchor(to);
    return made ? applyAllAttributes(made.get(), flags, attributes, Dates::carry) : errno;
}

int copyFolderAttributes(const ObjectAddress& from, int made, FileFlags& flags) {
    const UniqueFd anchor = openAnchor(from);
    if (!anchor) return errno;
    FileAttributes attributes;
    const int error = readAllAttributes(anchor.get(), flags, &attributes);
    return error != 0 ? error : applyAllAttributes(made, flags, attributes, Dates::carry);
}

class Copying : public TreeVisitor {
  public:
    explicit Copying(FileFlags& flags) noexcept : _flags(flags) {}

    int start(UniqueFd folder) {
        struct statx status {};
        if (::statx(folder.get(), "", AT_EMPTY_PATH, STATX_INO, &status) != 0) return errno;
        _top = status;
        return _made.push(std::move(folder));
    }

    int visit(const TreeEntry& entry, bool* descend) override {
        if (entry.type == DT_DIR && isOwnCopy(entry)) return EINVAL;
        bool created = false;
        const int error = copyObject({entry.parent, entry.name}, {_made.top(), entry.name}, _flags,
                                     descend, &created);
        return error == ENOENT && !created ? 0 : error;  // vanished after it was listed
    }
    int enter(const TreeEntry& entry) override {
        UniqueFd folder = openFolder(_made.top(), entry.name, false);
        return folder ? _made.push(std::move(folder)) : errno;
    }
    int leave(const TreeEntry& entry) override {
        int error = copyFolderAttributes({entry.parent, entry.name}, _made.top(), _flags);
        bool reopened = false;
        if (error == 0) error = _made.pop(&reopened);
        return error;
    }
    int cannotEnter(const TreeEntry& /*entry*/, int error) override { return error; }
    int cannotList(int error) override { return error; }

  private:
    /// A folder that is moved to a file system mounted within itself would never end.
    [[nodiscard]] bool isOwnCopy(const TreeEntry& entry) const {
        struct statx status {};
        return ::statx(entry.parent, entry.name, AT_SYMLINK_NOFOLLOW, STATX_INO, &status) == 0 &&
               status.stx_ino == _top.stx_ino && status.stx_dev_major == _top.stx_dev_major &&
               status.stx_dev_minor == _top.stx_dev_minor;
    }

    FileFlags& _flags;
    FolderStack _made;
    struct statx _top {};
};

class Removing : public TreeVisitor {
  public:
    int visit(const TreeEntry& entry, bool* descend) override {
        if (*descend) return 0;
        if (::unlinkat(entry.parent, entry.name, 0) == 0) return 0;
        // It has become a folder since it was listed.
        *descend = errno == EISDIR;
        return *descend ? 0 : unlessGone(errno);
    }
    int leave(const TreeEntry& entry) override {
        const int result = ::unlinkat(entry.parent, entry.name, AT_REMOVEDIR);
        return result == 0 ? 0 : unlessGone(errno);
    }
    int cannotEnter(const TreeEntry& entry, int error) override {
        // A folder that was exchanged for a link: the link is what is removed.
        if (error != ENOTDIR && error != ELOOP) return unlessGone(error);
        return ::unlinkat(entry.parent, entry.name, 0) == 0 ? 0 : unlessGone(errno);
    }
    int cannotList(int error) override { return error; }

  private:
    /// Somebody else removed it first, which is as good.
    static int unlessGone(int error) noexcept { return error == ENOENT ? 0 : error; }
};

}  // namespace

int copyTree(const ObjectAddress& from, const ObjectAddress& to, FileFlags& flags, bool* created) {
    bool isFolder = false;
    int error = copyObject(from, to, flags, &isFolder, created);
    if (error != 0 || !isFolder) return error;
    UniqueFd source = openFolder(from.parent, from.name, false);
    if (!source) return errno;
    UniqueFd made = openFolder(to.parent, to.name, false);
    if (!made) return errno;
    const UniqueFd top(::fcntl(made.get(), F_DUPFD_CLOEXEC, 0));
    if (!top) return errno;
    Copying copying(flags);
    error = copying.start(std::move(made));
    if (error != 0) return error;
    error = TreeWalk().walk(std::move(source), copying);
    return error != 0 ? error : copyFolderAttributes(from, top.get(), flags);
}

int removeTree(const ObjectAddress& object, std::string* failedPath) {
    failedPath->clear();
    struct statx status {};
    if (::statx(object.parent, object.name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_TYPE,
                &status) != 0) {
        return errno;
    }
    if (!S_ISDIR(status.stx_mode))
        return ::unlinkat(object.parent, object.name, 0) == 0 ? 0 : errno;
    UniqueFd folder = openFolder(object.parent, object.name, false);
    if (!folder) return errno;
    Removing removing;
    TreeWalk walk(TreeWalk::Resume::fromStart);
    const int error = walk.walk(std::move(folder), removing);
    if (error != 0) {
        *failedPath = walk.failedPath();
        return error;
    }
    return ::unlinkat(object.parent, object.name, AT_REMOVEDIR) == 0 ? 0 : errno;
}

}  // namespace corvalen
