// SPDX-License-Identifier: MIT
#include "platform/files/object_trees.hpp"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <memory>
#include <utility>

#include "platform/files/file_attributes.hpp"
#include "platform/files/object_address.hpp"
#include "platform/files/subtree_walk.hpp"
#include "platform/files/tree_walk.hpp"

namespace corvalen {
namespace {

Result<> unlinkEntry(const ObjectAddress& entry, int kind, const RemovalOptions& options) noexcept {
    if (::unlinkat(entry.parent.get(), entry.name, kind) != 0) return failure(errno);
    if (options.begun != nullptr) options.begun->store(true, std::memory_order_relaxed);
    if (options.cancellation != nullptr) options.cancellation->addObject();
    return {};
}

Result<> removeEntry(const ObjectAddress& entry, const Object& object,
                     const RemovalOptions& options) noexcept {
    return unlinkEntry(entry, object.isDirectory() ? AT_REMOVEDIR : 0, options);
}

/// An object that is already gone counts as removed.
bool isGone(SystemError error) noexcept {
    return error == ENOENT;
}

/// Removes the walk's object, or enters it if it is a directory.
Result<> removeOrEnter(TreeWalk& walk, const RemovalOptions& options) {
    Result<> done = failure(EISDIR);
    if (walk.entry().type != EntryType::directory) done = unlinkEntry(walk.address(), 0, options);
    // Its type may have changed since it was listed.
    if (failedWith(done, EISDIR)) {
        done = walk.enter();
        if (failedWith(done, EXDEV)) return failure(EBUSY);
        if (failedWith(done, ENOTDIR) || failedWith(done, ELOOP))
            done = unlinkEntry(walk.address(), 0, options);
    }
    return ignoring(isGone, done);
}

/// Smaller trees do not repay a second thread.
constexpr std::uint64_t kObjectsAlone = 1000;

/// Returns whether it removed everything; otherwise it stopped after `most` objects.
Result<bool, TreeError> removeInOrder(const WalkRest& whole, const RemovalOptions& options,
                                      std::uint64_t most) {
    TreeWalk walk(whole, {.resume = TreeWalkOptions::Resume::fromStart,
                          .order = TreeWalkOptions::Order::byInode,
                          .mounts = TreeWalkOptions::Mounts::refused,
                          .largeBatch = true,
                          .givesLeft = true,
                          .cancellation = options.cancellation});
    for (std::uint64_t objects = 0; objects < most; ++objects) {
        Result<> done;
        const TreeWalk::Step step = walk.next();
        if (step == TreeWalk::Step::object) done = removeOrEnter(walk, options);
        if (step == TreeWalk::Step::left)
            done = ignoring(isGone, unlinkEntry(walk.address(), AT_REMOVEDIR, options));
        if (step == TreeWalk::Step::end) done = walk.result();
        if (!done) return failure(TreeError(done.error(), walk.relativePath()));
        if (step == TreeWalk::Step::end) return true;
    }
    return false;
}

/// ESTALE unless `found` is the expected object; null accepts any.
Result<> compare(const Object& found, const struct statx* expected) noexcept {
    if (expected == nullptr || isSameObject(found.status, *expected)) return {};
    return failure(ESTALE);
}

/// Removes all but the directories of a tree, by two threads and in no order. Ends at the first
/// failure; a removal in order then meets the first one in order.
class FileRemoval : public SubtreeVisitor {
  public:
    explicit FileRemoval(const RemovalOptions& options) noexcept : _options(options) {}

    void run(UniqueFd top) {
        const TreeWalkOptions walk{.order = TreeWalkOptions::Order::byInode,
                                   .mounts = TreeWalkOptions::Mounts::refused,
                                   .largeBatch = true,
                                   .budget = SubtreeOptions::kBudgetOfMany,
                                   .cancellation = _options.cancellation};
        (void)walkSubtrees(std::move(top), *this, {.walk = walk, .counts = false});
    }

  private:
    Result<> visit(TreeWalk& walk, bool* enter, std::uint64_t* /*sum*/) override {
        if (*enter) return {};
        return ignoring(isGone, unlinkEntry(walk.address(), 0, _options));
    }
    Result<> cannotEnter(SystemError error) override { return ignoring(isGone, failure(error)); }

    const RemovalOptions& _options;
};

Result<void, TreeError> removeContents(const ObjectAddress& object, const RemovalOptions& options) {
    Result<UniqueFd> opened = openOnSameMount(object.parent, object.name);
    if (failedWith(opened, EXDEV)) return failure(EBUSY);
    if (!opened) return failure(opened.error());
    Object directory{*std::move(opened)};
    if (!examineOpen(directory.descriptor, objectStatxMask(), &directory.status))
        return failure(errno);
    if (const Result<> same = compare(directory, options.expected); !same)
        return failure(same.error());
    WalkRest whole;
    whole.directory = std::make_shared<UniqueFd>(std::move(directory.descriptor));
    const Result<bool, TreeError> removed = removeInOrder(whole, options, kObjectsAlone);
    if (!removed) return failure(removed.error());
    if (*removed) return {};
    FileRemoval(options).run(openForListing(*whole.directory).value_or(UniqueFd()));
    whole.position = 0;  // its start
    return removeInOrder(whole, options, UINT64_MAX).map([](bool /*all*/) {});
}

}  // namespace

Result<LocatedObject> openForRemoval(const ClientPath& path) {
    Result<Entry> entry = openEntry(path);
    if (!entry) return failure(entry.error());
    if (const Result<> removable = entry->checkRemovable(); !removable)
        return failure(removable.error());
    Result<Object> object = openObject(entry->address());
    if (!object) return failure(object.error());
    return LocatedObject{*std::move(entry), *std::move(object)};
}

Result<RemovalObstacle> removeSingleObject(const LocatedObject& located, FileFlags& flags) {
    const auto& [entry, object] = located;
    if (const Result<> fits = checkType(entry, object); !fits) return failure(fits.error());
    if (isWhiteout(object.status)) return RemovalObstacle::whiteout;
    // If the flags cannot be read, the removal itself fails on a protected object.
    const std::uint32_t present = flags.readFlags(object.address(), object.status).value_or(0);
    if ((present & kSystemProtectionFlags) != 0) return RemovalObstacle::systemFlags;
    if ((present & kUserProtectionFlags) != 0 &&
        !flags.setFlags(object.address(), present & ~kUserProtectionFlags)) {
        return RemovalObstacle::flagsStay;
    }
    return removeEntry(entry.address(), object, {}).map([] { return RemovalObstacle::none; });
}

Result<void, TreeError> removeTree(const ObjectAddress& object, const RemovalOptions& options) {
    Object found;
    if (!examineAt(object.parent, object.name, objectStatxMask(), &found.status))
        return failure(errno);
    if (const Result<> same = compare(found, options.expected); !same) return failure(same.error());
    if (found.isDirectory()) {
        Result<void, TreeError> emptied = removeContents(object, options);
        if (!emptied) return emptied;
    }
    if (const Result<> removed = removeEntry(object, found, options); !removed)
        return failure(removed.error());
    return {};
}

// Copies.

namespace {

/// Until the copy has its attributes, no other user can enter or open it.
constexpr mode_t kPrivateFolder = 0700;
constexpr off_t kChunk = 8 << 20;  // bytes

Result<> copyRange(Descriptor in, Descriptor out, off_t from, off_t to,
                   const Cancellation& cancellation) {
    if (::lseek(out.get(), from, SEEK_SET) < 0) return failure(errno);
    while (from < to) {
        if (cancellation.processEnds()) return failure(ECANCELED);
        const off_t wanted = std::min(to - from, kChunk);  // size_t may be narrower
        const ssize_t sent =
            ::sendfile(out.get(), in.get(), &from, static_cast<std::size_t>(wanted));
        if (sent < 0 && errno != EINTR) return failure(errno);
        if (sent == 0) return {};  // truncated meanwhile
    }
    return {};
}

/// Copies data and keeps holes.
Result<> copyContents(Descriptor in, Descriptor out, off_t size, const Cancellation& cancellation) {
    off_t position = 0;
    while (position < size) {
        const off_t data = ::lseek(in.get(), position, SEEK_DATA);
        if (data < 0 && errno == ENXIO) break;
        if (data < 0) return failure(errno);
        const off_t hole = ::lseek(in.get(), data, SEEK_HOLE);
        if (hole < 0) return failure(errno);
        if (const Result<> copied = copyRange(in, out, data, hole, cancellation); !copied)
            return copied;
        position = hole;
    }
    return resultOf(::ftruncate(out.get(), size));
}

Result<UniqueFd> copyFile(Descriptor anchor, const ObjectAddress& to, const struct statx& status,
                          const Cancellation& cancellation) {
    const UniqueFd in(::open(DescriptorPath(anchor).c_str(), O_RDONLY | O_CLOEXEC));
    if (!in) return failure(errno);
    Result<UniqueFd> made =
        openedBy(::openat(to.parent.get(), to.name,
                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kPrivateFileMode));
    if (!made) return made;
    const Result<> copied =
        copyContents(in, *made, static_cast<off_t>(status.stx_size), cancellation);
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
    const mode_t mode = (status.stx_mode & S_IFMT) | kPrivateFileMode;
    const dev_t device = makedev(status.stx_rdev_major, status.stx_rdev_minor);
    return resultOf(::mknodat(to.parent.get(), to.name, mode, device));
}

constexpr AttributeChange kAsMoved{.dates = true, .flags = false, .leaveOutRefused = true};

/// Creates and opens the object; a directory stays empty.
Result<UniqueFd> makeCopy(const Object& source, const FileAttributes& attributes,
                          const ObjectAddress& to, const Cancellation& cancellation) {
    const mode_t mode = attributes.status.stx_mode;
    if (S_ISREG(mode)) return copyFile(source.descriptor, to, attributes.status, cancellation);
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
Result<UniqueFd> copyObject(const Object& source, const ObjectAddress& to, FileFlags& flags,
                            const Cancellation& cancellation) {
    const Result<FileAttributes> attributes = readAllAttributes(source.descriptor, flags);
    if (!attributes) return failure(attributes.error());
    Result<UniqueFd> made = makeCopy(source, *attributes, to, cancellation);
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

bool isSameOnAnyMount(const struct statx& one, const struct statx& other) noexcept {
    ObjectIdentity identity = identityOf(one);
    identity.mount = identityOf(other).mount;
    return identity == identityOf(other);
}

/// Copies the current object of the walk into the innermost created directory; enters both if it is
/// a directory. Fails at the directory that holds the copy: through a second mount of it, the copy
/// would be copied without end.
Result<> copyEntry(TreeWalk& walk, DirectoryStack& made, const Object& holder, FileFlags& flags,
                   const Cancellation& cancellation) {
    const Result<Object> source = openObject(walk.address());
    if (failedWith(source, ENOENT)) return {};  // vanished after it was listed
    if (!source) return failure(source.error());
    if (isSameOnAnyMount(source->status, holder.status)) return failure(EINVAL);
    Result<UniqueFd> directory =
        copyObject(*source, {made.top(), walk.entry().name.data()}, flags, cancellation);
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

Result<> copyBelow(TreeWalk& walk, DirectoryStack& made, const Object& holder, FileFlags& flags,
                   Cancellation& cancellation) {
    Result<> done;
    while (done) {
        switch (walk.next()) {
            case TreeWalk::Step::object:
                done = copyEntry(walk, made, holder, flags, cancellation);
                if (done) cancellation.addObject();
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
    Result<UniqueFd> directory = copyObject(from, to, flags, cancellation);
    if (!directory) return failure(directory.error());
    Result<Object> made = openObject(to);
    if (!made || !*directory) return made;
    Result<UniqueFd> source = openForListing(from.descriptor);
    if (!source) return failure(source.error());
    const Result<Object> holder = openObject({to.parent});
    if (!holder) return failure(holder.error());
    DirectoryStack directories;
    directories.push(*std::move(directory));
    TreeWalk walk(*std::move(source), {.mounts = TreeWalkOptions::Mounts::refused,
                                       .givesLeft = true,
                                       .cancellation = &cancellation});
    Result<> done = copyBelow(walk, directories, *holder, flags, cancellation);
    if (done) done = copyDirectoryAttributes(from.descriptor, directories.top(), flags);
    if (!done) return failure(done.error());
    return made;
}

}  // namespace corvalen
