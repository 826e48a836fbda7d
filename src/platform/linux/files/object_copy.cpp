// SPDX-License-Identifier: MIT
#include "platform/linux/files/object_copy.hpp"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>

#include "platform/files/file_attributes.hpp"
#include "platform/files/tree_walk.hpp"

namespace corvalen {
namespace {

/// Until the copy has its attributes, no other user can enter or open it.
constexpr mode_t kPrivateFile = 0600;
constexpr mode_t kPrivateFolder = 0700;
constexpr off_t kChunk = 8 << 20;  // bytes

int copyRange(int in, int out, off_t from, off_t to) {
    if (::lseek(out, from, SEEK_SET) < 0) return errno;
    while (from < to) {
        const off_t wanted = std::min(to - from, kChunk);  // size_t may be narrower
        const ssize_t sent = ::sendfile(out, in, &from, static_cast<std::size_t>(wanted));
        if (sent < 0 && errno != EINTR) return errno;
        if (sent == 0) return 0;  // truncated meanwhile
    }
    return 0;
}

/// Copies data and keeps holes.
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

/// Creates and opens the object; a directory stays empty.
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

/// Some file systems report only in close(2) that writing failed.
int closeWritten(UniqueFd* file) {
    return ::close(file->release()) == 0 || errno == EINTR ? 0 : errno;
}

/// Copies one object. A directory stays empty and gets its attributes after its entries.
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

/// Copies the current object of the walk into the innermost created directory; enters both if it is
/// a directory.
int copyEntry(TreeWalk& walk, DirectoryStack& made, FileFlags& flags) {
    Object source;
    UniqueFd directory;
    int error = openObject(walk.address(), &source);
    if (error == ENOENT) return 0;  // vanished after it was listed
    if (error == 0)
        error = copyObject(source, {made.top(), walk.entry().name.data()}, flags, &directory);
    if (error != 0 || !directory) return error;
    error = walk.enter();
    if (error == 0) made.push(std::move(directory));
    return error == EXDEV ? EBUSY : error;
}

/// Completes the copy of the directory that the walk leaves.
int completeDirectory(const TreeWalk& walk, DirectoryStack& made, FileFlags& flags) {
    int error = copyDirectoryAttributes(descriptorOf(walk.enteredDirectory()), made.top(), flags);
    bool reopened = false;
    if (error == 0) error = made.openAbove(&reopened);
    if (error == 0) made.pop();
    return error;
}

int copyBelow(TreeWalk& walk, DirectoryStack& made, FileFlags& flags, Cancellation& cancellation) {
    int error = 0;
    while (error == 0) {
        switch (walk.next()) {
            case TreeWalk::Step::object:
                error = copyEntry(walk, made, flags);
                if (error == 0) cancellation.setObjectCount(cancellation.objectCount() + 1);
                break;
            case TreeWalk::Step::left:
                error = completeDirectory(walk, made, flags);
                break;
            case TreeWalk::Step::end:
                return walk.error();
        }
    }
    return error;
}

}  // namespace

int copyTree(const Object& from, const ObjectAddress& to, FileFlags& flags,
             Cancellation& cancellation, Object* made) {
    UniqueFd directory;
    int error = copyObject(from, to, flags, &directory);
    if (error == 0) error = openObject(to, made);
    if (error != 0 || !directory) return error;
    UniqueFd source = openForListing(from.descriptor.get());
    if (!source) return errno;
    DirectoryStack directories;
    directories.push(std::move(directory));
    TreeWalk walk(std::move(source), {.mounts = TreeWalkOptions::Mounts::refused,
                                      .givesLeft = true,
                                      .cancellation = &cancellation});
    error = copyBelow(walk, directories, flags, cancellation);
    if (error != 0) return error;
    return copyDirectoryAttributes(from.descriptor.get(), directories.top(), flags);
}

}  // namespace corvalen
