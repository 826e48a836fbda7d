// SPDX-License-Identifier: MIT
#include "platform/files/file_manager.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <exception>
#include <utility>

#include "foundation/path.hpp"
#include "platform/files/object_address.hpp"
#include "platform/files/object_trees.hpp"
#include "platform/files/tree_walk.hpp"

namespace corvalen {

// Moves between file systems: copy into a private directory, then rename the complete copy.
namespace {

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
        Result<UniqueFd> made = makeDirectory({parent, _name.c_str()}, kPrivateFolderMode);
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
    // As rename(2) within a file system: the removal at the end would fail.
    if (from.name().isDotOrDotDot()) return failure(EBUSY);
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

    std::atomic<bool>* sourceBegan() noexcept { return &_sourceBegan; }

  private:
    const Entry& _to;
    const Object& _made;
    std::atomic<bool> _sourceBegan = false;
};

/// The failure of a move; the path is below the old place.
struct MoveError : TreeError {
    using TreeError::TreeError;
    // NOLINTNEXTLINE(google-explicit-constructor): a failure in the tree
    MoveError(TreeError error) : TreeError(std::move(error)) {}

    bool aboutDestination = false;  // the error concerns the new place
};

/// Moves the object to another file system, all or nothing; see FileManager::moveItem.
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

bool failWriting(ErrorRef* out, SystemError error, std::string_view path) {
    if (error == ECANCELED) return failWithErrno(out, error.number);
    if (out != nullptr) *out = makeFileError(FileAccess::write, error.number, path);
    return false;
}

/// ENOTDIR if either path ends with a slash and the object is not a directory.
Result<> checkSlashes(const Entry& from, const Entry& to) {
    if (!from.mustBeDirectory() && !to.mustBeDirectory()) return {};
    const Result<Object> object = openObject(from.address());
    if (!object) return failure(object.error());
    if (!object->isDirectory()) return failure(ENOTDIR);
    return {};
}

std::string_view pathConcerned(SystemError error, const NamedEntry& from,
                               const NamedEntry& to) noexcept {
    const bool aboutDestination = error == EEXIST || error == ENOSPC ||
                                  (error == ENOENT && existsItself(from.entry.address()));
    return aboutDestination ? to.path : from.path;
}

Result<> makeHardLink(const ObjectAddress& existing, const ObjectAddress& link) noexcept {
    return resultOf(
        ::linkat(existing.parent.get(), existing.name, link.parent.get(), link.name, 0));
}

/// errno becomes an error object here, not in the operations: their contract passes the errors of
/// these methods on unchanged.
class KernelFileManager : public FileManager {
  public:
    explicit KernelFileManager(FileFlags& flags) noexcept : _flags(flags) {}

    bool moveItem(const NamedEntry& from, const NamedEntry& to, ErrorRef* error) override {
        const Result<> moved = checkSlashes(from.entry, to.entry).and_then([&] {
            return renameExclusively(from.entry.address(), to.entry.address());
        });
        if (failedWith(moved, EXDEV)) return moveToOtherFileSystem(from, to, error);
        if (!moved)
            return failWriting(error, moved.error(), pathConcerned(moved.error(), from, to));
        // New name first: after a crash the object may have both names, never none.
        Result<> synced = syncDirectory(to.entry.parent());
        if (!synced) return failWriting(error, synced.error(), to.path);
        synced = syncDirectory(from.entry.parent());
        return synced || failWriting(error, synced.error(), from.path);
    }

    bool linkItem(const NamedEntry& from, const NamedEntry& to, ErrorRef* error) override {
        const Result<> linked = checkSlashes(from.entry, to.entry).and_then([&] {
            return makeHardLink(from.entry.address(), to.entry.address());
        });
        if (!linked)
            return failWriting(error, linked.error(), pathConcerned(linked.error(), from, to));
        const Result<> synced = syncDirectory(to.entry.parent());
        return synced || failWriting(error, synced.error(), to.path);
    }

    bool createSymbolicLink(const NamedEntry& at, const std::string& destination,
                            ErrorRef* error) override {
        if (at.entry.mustBeDirectory()) return failWriting(error, {ENOENT}, at.path);
        const ObjectAddress link = at.entry.address();
        const Result<> made =
            resultOf(::symlinkat(destination.c_str(), link.parent.get(), link.name)).and_then([&] {
                return syncDirectory(link.parent);
            });
        return made || failWriting(error, made.error(), at.path);
    }

    bool removeItem(const ObjectAddress& object, std::string_view path, ErrorRef* error) override {
        const Result<void, TreeError> removed =
            removeTree(object, {.cancellation = &currentCancellation()});
        return removed ||
               failWriting(error, removed.error(), appendPathComponent(path, removed.error().path));
    }

  private:
    bool moveToOtherFileSystem(const NamedEntry& from, const NamedEntry& to, ErrorRef* error) {
        const Result<void, MoveError> moved = moveAcross(from.entry, to.entry, _flags);
        if (moved) return true;
        return failWriting(error, moved.error(),
                           moved.error().aboutDestination
                               ? std::string(to.path)
                               : appendPathComponent(from.path, moved.error().path));
    }

    FileFlags& _flags;
};

}  // namespace

std::unique_ptr<FileManager> makeFileManager(FileFlags& flags) {
    return std::make_unique<KernelFileManager>(flags);
}

}  // namespace corvalen
