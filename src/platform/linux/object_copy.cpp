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

#include "platform/file_attributes.hpp"

namespace corvalen {
namespace {

/// Until it has its attributes, nobody else enters or opens what is being made.
constexpr mode_t kPrivateFile = 0600;
constexpr mode_t kPrivateFolder = 0700;
constexpr off_t kChunk = 8 << 20;

int copyRange(int in, int out, off_t from, off_t to) {
    if (::lseek(out, from, SEEK_SET) < 0) return errno;
    while (from < to) {
        const off_t wanted = std::min(to - from, kChunk);  // before the cast: size_t may be shorter
        const ssize_t sent = ::sendfile(out, in, &from, static_cast<std::size_t>(wanted));
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

constexpr AttributeChange kAsMoved{.dates = true, .flags = false, .leaveOutRefused = true};

/// Makes the object, empty when it is a directory, and opens it.
int makeCopy(const Object& source, const FileAttributes& attributes, const ObjectAddress& to,
             UniqueFd* made) {
    const mode_t mode = attributes.status.stx_mode;
    int error = 0;
    if (S_ISREG(mode)) return makeFile(source.descriptor.get(), to, attributes.status, made);
    if (S_ISDIR(mode)) {
        error = ::mkdirat(to.parent, to.name, kPrivateFolder) == 0 ? 0 : errno;
    } else {
        error = S_ISLNK(mode) ? makeLink(source.descriptor.get(), to)
                              : makeSpecial(attributes.status, to);
    }
    if (error == 0) *made = S_ISDIR(mode) ? openOnSameMount(to.parent, to.name) : openAnchor(to);
    return error != 0 || *made ? error : errno;
}

/// close(2) is where some file systems say that the content was not written.
int closeWritten(UniqueFd* file) {
    return ::close(file->release()) == 0 || errno == EINTR ? 0 : errno;
}

/// Copies one object without its contents; a directory gets its attributes when it is full.
int copyObject(const Object& source, const ObjectAddress& to, FileFlags& flags,
               UniqueFd* madeDirectory) {
    FileAttributes attributes;
    int error = readAllAttributes(source.descriptor.get(), flags, &attributes);
    UniqueFd made;
    if (error == 0) error = makeCopy(source, attributes, to, &made);
    if (error != 0) return error;
    if (source.isDirectory()) {
        *madeDirectory = std::move(made);
        return 0;
    }
    error = applyAllAttributes(made.get(), flags, attributes, kAsMoved);
    return error != 0 || !S_ISREG(attributes.status.stx_mode) ? error : closeWritten(&made);
}

int copyDirectoryAttributes(int from, int made, FileFlags& flags) {
    FileAttributes attributes;
    const int error = readAllAttributes(from, flags, &attributes);
    return error != 0 ? error : applyAllAttributes(made, flags, attributes, kAsMoved);
}

class Copying : public TreeVisitor {
  public:
    Copying(FileFlags& flags, UniqueFd top) : _flags(flags) { (void)_made.push(std::move(top)); }

    int visit(const TreeEntry& entry, bool* descend) override {
        UniqueFd directory;
        Object source;
        int error = openObject({entry.parent, entry.name}, &source);
        if (error == ENOENT) return 0;  // vanished after it was listed
        if (error == 0) error = copyObject(source, {_made.top(), entry.name}, _flags, &directory);
        *descend = static_cast<bool>(directory);
        return error;
    }
    int enter(const TreeEntry& entry) override {
        UniqueFd directory = openOnSameMount(_made.top(), entry.name);
        return directory ? _made.push(std::move(directory)) : errno;
    }
    int leave(const TreeEntry& entry) override {
        const UniqueFd source = openAnchor({entry.parent, entry.name});
        int error = source ? copyDirectoryAttributes(source.get(), _made.top(), _flags) : errno;
        bool reopened = false;
        if (error == 0) error = _made.pop(&reopened);
        return error;
    }
    int cannotEnter(const TreeEntry& /*entry*/, int error) override {
        return error == EXDEV ? EBUSY : error;
    }
    int cannotList(int error) override { return error; }

  private:
    FileFlags& _flags;
    FolderStack _made;
};

}  // namespace

int copyTree(const Object& from, const ObjectAddress& to, FileFlags& flags, TreeProgress& progress,
             Object* made) {
    UniqueFd directory;
    int error = copyObject(from, to, flags, &directory);
    if (error == 0) error = openObject(to, made);
    if (error != 0 || !directory) return error;
    UniqueFd source = openForListing(from.descriptor.get());
    if (!source) return errno;
    const UniqueFd top(::fcntl(directory.get(), F_DUPFD_CLOEXEC, 0));
    if (!top) return errno;
    Copying copying(flags, std::move(directory));
    TreeWalk walk({.mounts = TreeWalkOptions::Mounts::refused, .progress = &progress});
    error = walk.walk(std::move(source), copying);
    return error != 0 ? error : copyDirectoryAttributes(from.descriptor.get(), top.get(), flags);
}

}  // namespace corvalen
