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

Result<> copyRange(Descriptor in, Descriptor out, off_t from, off_t to) {
    if (::lseek(out.get(), from, SEEK_SET) < 0) return failure(errno);
    while (from < to) {
        const off_t wanted = std::min(to - from, kChunk);  // size_t may be narrower
        const ssize_t sent =
            ::sendfile(out.get(), in.get(), &from, static_cast<std::size_t>(wanted));
        if (sent < 0 && errno != EINTR) return failure(errno);
        if (sent == 0) return {};  // truncated meanwhile
    }
    return {};
}

/// Copies data and keeps holes.
Result<> copyContents(Descriptor in, Descriptor out, off_t size) {
    off_t position = 0;
    while (position < size) {
        const off_t data = ::lseek(in.get(), position, SEEK_DATA);
        if (data < 0 && errno == ENXIO) break;
        if (data < 0) return failure(errno);
        const off_t hole = ::lseek(in.get(), data, SEEK_HOLE);
        if (hole < 0) return failure(errno);
        if (const Result<> copied = copyRange(in, out, data, hole); !copied) return copied;
        position = hole;
    }
    return resultOf(::ftruncate(out.get(), size));
}

Result<UniqueFd> copyFile(Descriptor anchor, const ObjectAddress& to, const struct statx& status) {
    const UniqueFd in(::open(DescriptorPath(anchor).c_str(), O_RDONLY | O_CLOEXEC));
    if (!in) return failure(errno);
    Result<UniqueFd> made =
        openedBy(::openat(to.parent.get(), to.name,
                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kPrivateFile));
    if (!made) return made;
    const Result<> copied = copyContents(in, *made, static_cast<off_t>(status.stx_size));
    if (!copied) return failure(copied.error());
    return made;
}

Result<> copyLink(Descriptor anchor, const ObjectAddress& to) {
    std::array<char, PATH_MAX> target{};
    const ssize_t length = ::readlinkat(anchor.get(), "", target.data(), target.size() - 1);
    if (length < 0) return failure(errno);
    return resultOf(::symlinkat(target.data(), to.parent.get(), to.name));
}

Result<> copySpecial(const struct statx& status, const ObjectAddress& to) {
    const mode_t mode = (status.stx_mode & S_IFMT) | kPrivateFile;
    const dev_t device = makedev(status.stx_rdev_major, status.stx_rdev_minor);
    return resultOf(::mknodat(to.parent.get(), to.name, mode, device));
}

constexpr AttributeChange kAsMoved{.dates = true, .flags = false, .leaveOutRefused = true};

/// Creates and opens the object; a directory stays empty.
Result<UniqueFd> makeCopy(const Object& source, const FileAttributes& attributes,
                          const ObjectAddress& to) {
    const mode_t mode = attributes.status.stx_mode;
    if (S_ISREG(mode)) return copyFile(source.descriptor, to, attributes.status);
    if (S_ISDIR(mode)) {
        if (::mkdirat(to.parent.get(), to.name, kPrivateFolder) != 0) return failure(errno);
        return openOnSameMount(to.parent, to.name);
    }
    const Result<> made =
        S_ISLNK(mode) ? copyLink(source.descriptor, to) : copySpecial(attributes.status, to);
    return made.and_then([&] { return openAnchor(to); });
}

/// Some file systems report only in close(2) that writing failed.
Result<> closeWritten(UniqueFd file) {
    if (::close(file.release()) == 0 || errno == EINTR) return {};
    return failure(errno);
}

/// Copies one object. Returns an open directory, which stays empty and gets its attributes after
/// its entries; no descriptor of another object.
Result<UniqueFd> copyObject(const Object& source, const ObjectAddress& to, FileFlags& flags) {
    const Result<FileAttributes> attributes = readAllAttributes(source.descriptor, flags);
    if (!attributes) return failure(attributes.error());
    Result<UniqueFd> made = makeCopy(source, *attributes, to);
    if (!made || source.isDirectory()) return made;
    Result<> done = applyAllAttributes(*made, flags, *attributes, kAsMoved);
    if (done && S_ISREG(attributes->status.stx_mode)) done = closeWritten(*std::move(made));
    if (!done) return failure(done.error());
    return UniqueFd();
}

Result<> copyDirectoryAttributes(Descriptor from, Descriptor made, FileFlags& flags) {
    return readAllAttributes(from, flags).and_then([&](const FileAttributes& attributes) {
        return applyAllAttributes(made, flags, attributes, kAsMoved);
    });
}

/// Copies the current object of the walk into the innermost created directory; enters both if it is
/// a directory.
Result<> copyEntry(TreeWalk& walk, DirectoryStack& made, FileFlags& flags) {
    const Result<Object> source = openObject(walk.address());
    if (failedWith(source, ENOENT)) return {};  // vanished after it was listed
    if (!source) return failure(source.error());
    Result<UniqueFd> directory = copyObject(*source, {made.top(), walk.entry().name.data()}, flags);
    if (!directory) return failure(directory.error());
    if (!*directory) return {};
    const Result<> entered = walk.enter();
    if (entered) made.push(*std::move(directory));
    return failedWith(entered, EXDEV) ? failure(EBUSY) : entered;
}

/// Completes the copy of the directory that the walk leaves.
Result<> completeDirectory(const TreeWalk& walk, DirectoryStack& made, FileFlags& flags) {
    const Result<> copied =
        copyDirectoryAttributes(descriptorOf(walk.enteredDirectory()), made.top(), flags);
    if (!copied) return copied;
    const Result<bool> reopened = made.openAbove();
    if (!reopened) return failure(reopened.error());
    made.pop();
    return {};
}

Result<> copyBelow(TreeWalk& walk, DirectoryStack& made, FileFlags& flags,
                   Cancellation& cancellation) {
    Result<> done;
    while (done) {
        switch (walk.next()) {
            case TreeWalk::Step::object:
                done = copyEntry(walk, made, flags);
                if (done) cancellation.setObjectCount(cancellation.objectCount() + 1);
                break;
            case TreeWalk::Step::left:
                done = completeDirectory(walk, made, flags);
                break;
            case TreeWalk::Step::end:
                return walk.result();
        }
    }
    return done;
}

}  // namespace

Result<Object> copyTree(const Object& from, const ObjectAddress& to, FileFlags& flags,
                        Cancellation& cancellation) {
    Result<UniqueFd> directory = copyObject(from, to, flags);
    if (!directory) return failure(directory.error());
    Result<Object> made = openObject(to);
    if (!made || !*directory) return made;
    Result<UniqueFd> source = openForListing(from.descriptor);
    if (!source) return failure(source.error());
    DirectoryStack directories;
    directories.push(*std::move(directory));
    TreeWalk walk(*std::move(source), {.mounts = TreeWalkOptions::Mounts::refused,
                                       .givesLeft = true,
                                       .cancellation = &cancellation});
    Result<> done = copyBelow(walk, directories, flags, cancellation);
    if (done) done = copyDirectoryAttributes(from.descriptor, directories.top(), flags);
    if (!done) return failure(done.error());
    return made;
}

}  // namespace corvalen
