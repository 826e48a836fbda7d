// SPDX-License-Identifier: MIT
// Moves between file systems: copies into a private directory, then renames the complete copy.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <exception>

#include "platform/files/new_object.hpp"
#include "platform/files/object_removal.hpp"
#include "platform/files/tree_walk.hpp"
#include "platform/linux/files/object_copy.hpp"

namespace corvalen {
namespace {

constexpr mode_t kPrivateDirectory = 0700;
constexpr const char* kCopyName = "copy";

/// Removes a leftover. Destructors call it: an exception would end the process.
void removeQuietly(const ObjectAddress& object, const RemovalOptions& options) noexcept {
    try {
        (void)removeTree(object, options);
    } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): no further cleanup
    }
}

/// The private directory for the copy: the owner of the directory above cannot enter it and replace
/// objects. The destructor removes it with its contents.
class Staging {
  public:
    Staging() = default;
    Staging(const Staging&) = delete;
    Staging& operator=(const Staging&) = delete;
    ~Staging() {
        if (!_directory) return;
        removeQuietly(copy(), {});
        // Retries, since the move may have succeeded: a transient failure leaves no directory
        // behind.
        if (::unlinkat(_parent.get(), _name.c_str(), AT_REMOVEDIR) != 0)
            (void)::unlinkat(_parent.get(), _name.c_str(), AT_REMOVEDIR);
    }

    Result<> create(Descriptor parent) {
        _parent = parent;
        _name = temporaryName();
        Result<UniqueFd> made = makeDirectory({parent, _name.c_str()}, kPrivateDirectory);
        if (!made) return failure(made.error());
        _directory = *std::move(made);
        return {};
    }
    [[nodiscard]] ObjectAddress copy() const noexcept { return {_directory, kCopyName}; }
    [[nodiscard]] Descriptor directory() const noexcept { return _directory; }

  private:
    Descriptor _parent;
    std::string _name;
    UniqueFd _directory;
};

Result<> failUnlessUnlocked(FileFlags& flags, const ObjectAddress& object,
                            const struct statx& status) {
    const Result<std::uint32_t> locked = flags.readFlags(object, status);
    if (!locked && !failedWith(locked, ENOTSUP)) return failure(locked.error());
    if (locked.value_or(0) != 0) return failure(EPERM);
    return {};
}

/// Checks, as for a removal: a writable file system, no mount on the object, no lock on it or on
/// the directory above.
Result<> checkSource(const Entry& from, const Object& source, FileFlags& flags) {
    const Result<Object> above = openObject({from.parent()});
    if (!above) return failure(above.error());
    struct statvfs fileSystem {};
    if (::fstatvfs(from.parent().get(), &fileSystem) != 0) return failure(errno);
    if ((fileSystem.f_flag & ST_RDONLY) != 0) return failure(EROFS);
    if (!isSameMount(above->status, source.status)) return failure(EBUSY);
    return failUnlessUnlocked(flags, above->address(), above->status).and_then([&] {
        return failUnlessUnlocked(flags, source.address(), source.status);
    });
}

Result<> checkEntry(TreeWalk& walk, FileFlags& flags) {
    const struct statx* status = walk.attributes();
    if (status == nullptr && errno == ENOENT) return {};  // removed after it was listed
    if (status == nullptr) return failure(errno);
    Result<> checked = failUnlessUnlocked(flags, walk.address(), *status);
    if (checked && walk.entry().type == EntryType::directory) checked = walk.enter();
    return failedWith(checked, EXDEV) ? failure(EBUSY) : checked;
}

/// Checks that nothing below will prevent removal after the copy.
Result<void, TreeError> checkTree(const Object& source, FileFlags& flags,
                                  Cancellation& cancellation) {
    Result<UniqueFd> top = openForListing(source.descriptor);
    if (!top) return failure(top.error());
    TreeWalk walk(*std::move(top),
                  {.mounts = TreeWalkOptions::Mounts::refused, .cancellation = &cancellation});
    Result<> checked;
    while (checked && walk.next() == TreeWalk::Step::object)
        checked = checkEntry(walk, flags);
    if (checked) checked = walk.result();
    if (!checked) return failure(TreeError(checked.error(), walk.relativePath()));
    return {};
}

/// A tree takes one call; syncing each file would cost a disk write each.
Result<> syncCopy(const Staging& staging, const Object& made) {
    if (made.isDirectory()) return resultOf(::syncfs(staging.directory().get()));
    if (!S_ISREG(made.status.stx_mode)) return syncDirectory(staging.directory());
    const UniqueFd file(
        ::openat(staging.directory().get(), kCopyName, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!file) return failure(errno);
    return syncObject(file);
}

/// Checks that the copy arrived: the owner of the directory may have replaced it there since.
Result<> checkArrival(const Object& made, const Entry& to) {
    const Result<Object> arrived = openObject(to.address());
    if (!arrived) return failure(arrived.error());
    if (!isSameObject(arrived->status, made.status)) return failure(ESTALE);
    return syncDirectory(to.parent());
}

/// Renames the copy to its final name.
Result<> reveal(const Staging& staging, const Object& made, const Entry& to) {
    const Result<> renamed = renameExclusively(staging.copy(), to.address());
    if (!renamed) return renamed;
    const Result<> arrived = checkArrival(made, to);
    if (!arrived) removeQuietly(to.address(), {.expected = &made.status});
    return arrived;
}

/// Copies to the new place. Leaves nothing behind on failure.
Result<Object> copyInto(const Entry& to, const Object& source, FileFlags& flags,
                        Cancellation& cancellation) {
    if (existsItself(to.address())) return failure(EEXIST);
    Staging staging;
    if (const Result<> created = staging.create(to.parent()); !created)
        return failure(created.error());
    Result<Object> made = copyTree(source, staging.copy(), flags, cancellation);
    if (!made) return made;
    const Result<> arrived =
        syncCopy(staging, *made).and_then([&] { return reveal(staging, *made, to); });
    if (!arrived) return failure(arrived.error());
    return made;
}

/// The copy under its final name. Its destructor removes it unless the removal of the source has
/// begun.
class Arrival {
  public:
    Arrival(const Entry& to, const Object& made) noexcept : _to(to), _made(made) {}
    Arrival(const Arrival&) = delete;
    Arrival& operator=(const Arrival&) = delete;
    ~Arrival() {
        if (!_sourceBegan) removeQuietly(_to.address(), {.expected = &_made.status});
    }

    bool* sourceBegan() noexcept { return &_sourceBegan; }

  private:
    const Entry& _to;
    const Object& _made;
    bool _sourceBegan = false;
};

}  // namespace

Result<void, MoveError> moveAcross(const Entry& from, const Entry& to, FileFlags& flags) {
    Cancellation& cancellation = currentCancellation();
    const Result<Object> source = openObject(from.address());
    if (!source) return failure(source.error());
    if (const Result<> fit = checkSource(from, *source, flags); !fit) return failure(fit.error());
    if (source->isDirectory()) {
        const Result<void, TreeError> fit = checkTree(*source, flags, cancellation);
        if (!fit) return failure(MoveError(fit.error()));
    }
    const Result<Object> made = copyInto(to, *source, flags, cancellation);
    if (!made) {
        MoveError error(made.error());
        error.aboutDestination = true;
        return failure(std::move(error));
    }
    Arrival arrival(to, *made);
    // Not cancelled any more: an interrupted removal would leave objects in two places.
    const Result<void, TreeError> removed =
        removeTree(from.address(), {.expected = &source->status, .begun = arrival.sourceBegan()});
    if (!removed) return failure(MoveError(removed.error()));
    if (const Result<> synced = syncDirectory(from.parent()); !synced)
        return failure(synced.error());
    return {};
}

}  // namespace corvalen
