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
        std::string ignored;
        (void)removeTree(object, options, &ignored);
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
        if (::unlinkat(_parent, _name.c_str(), AT_REMOVEDIR) != 0)
            (void)::unlinkat(_parent, _name.c_str(), AT_REMOVEDIR);
    }

    int create(int parent) {
        _parent = parent;
        _name = temporaryName();
        return makeDirectory({parent, _name.c_str()}, kPrivateDirectory, &_directory);
    }
    [[nodiscard]] ObjectAddress copy() const noexcept { return {_directory.get(), kCopyName}; }
    [[nodiscard]] int directory() const noexcept { return _directory.get(); }

  private:
    int _parent = -1;
    std::string _name;
    UniqueFd _directory;
};

int failUnlessUnlocked(FileFlags& flags, const ObjectAddress& object, const struct statx& status) {
    std::uint32_t locked = 0;
    const int error = flags.readFlags(object, status, &locked);
    if (error != 0 && error != ENOTSUP) return error;
    return locked != 0 ? EPERM : 0;
}

/// Checks, as for a removal: a writable file system, no mount on the object, no lock on it or on
/// the directory above.
int checkSource(const Entry& from, const Object& source, FileFlags& flags) {
    Object above;
    if (const int error = openObject({from.parent()}, &above); error != 0) return error;
    struct statvfs fileSystem {};
    if (::fstatvfs(from.parent(), &fileSystem) != 0) return errno;
    if ((fileSystem.f_flag & ST_RDONLY) != 0) return EROFS;
    if (!isSameMount(above.status, source.status)) return EBUSY;
    const int error = failUnlessUnlocked(flags, above.address(), above.status);
    return error != 0 ? error : failUnlessUnlocked(flags, source.address(), source.status);
}

int checkEntry(TreeWalk& walk, FileFlags& flags) {
    const struct statx* status = walk.attributes();
    if (status == nullptr) return errno == ENOENT ? 0 : errno;  // removed after it was listed
    int error = failUnlessUnlocked(flags, walk.address(), *status);
    if (error == 0 && walk.entry().type == EntryType::directory) error = walk.enter();
    return error == EXDEV ? EBUSY : error;
}

/// Checks that nothing below will prevent removal after the copy.
int checkTree(const Object& source, FileFlags& flags, Cancellation& cancellation,
              std::string* failedPath) {
    UniqueFd top = openForListing(source.descriptor.get());
    if (!top) return errno;
    TreeWalk walk(std::move(top),
                  {.mounts = TreeWalkOptions::Mounts::refused, .cancellation = &cancellation});
    int error = 0;
    while (error == 0 && walk.next() == TreeWalk::Step::object)
        error = checkEntry(walk, flags);
    if (error == 0) error = walk.error();
    if (error != 0) *failedPath = walk.relativePath();
    return error;
}

/// A tree takes one call; syncing each file would cost a disk write each.
int syncCopy(const Staging& staging, const Object& made) {
    if (made.isDirectory()) return ::syncfs(staging.directory()) == 0 ? 0 : errno;
    if (!S_ISREG(made.status.stx_mode)) return syncDirectory(staging.directory());
    const UniqueFd file(
        ::openat(staging.directory(), kCopyName, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    return file ? syncObject(file.get()) : errno;
}

/// Renames the copy to its final name. The owner of the directory may have replaced it there since,
/// so the identity is checked.
int reveal(const Staging& staging, const Object& made, const Entry& to) {
    int error = renameExclusively(staging.copy(), to.address());
    if (error != 0) return error;
    Object arrived;
    error = openObject(to.address(), &arrived);
    if (error == 0 && !isSameObject(arrived.status, made.status)) error = ESTALE;
    if (error == 0) error = syncDirectory(to.parent());
    if (error != 0) removeQuietly(to.address(), {.expected = &made.status});
    return error;
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

int moveAcross(const Entry& from, const Entry& to, FileFlags& flags, std::string* failedPath,
               bool* aboutDestination) {
    Cancellation& cancellation = currentCancellation();
    Object source;
    int error = openObject(from.address(), &source);
    if (error == 0) error = checkSource(from, source, flags);
    if (error == 0 && source.isDirectory())
        error = checkTree(source, flags, cancellation, failedPath);
    if (error != 0) return error;
    *aboutDestination = true;
    failedPath->clear();
    if (existsItself(to.address())) return EEXIST;
    Object made;
    {
        Staging staging;
        error = staging.create(to.parent());
        if (error == 0) error = copyTree(source, staging.copy(), flags, cancellation, &made);
        if (error == 0) error = syncCopy(staging, made);
        if (error == 0) error = reveal(staging, made, to);
        if (error != 0) return error;
    }
    *aboutDestination = false;
    Arrival arrival(to, made);
    // Not cancelled any more: an interrupted removal would leave objects in two places.
    error = removeTree(from.address(), {.expected = &source.status, .begun = arrival.sourceBegan()},
                       failedPath);
    return error != 0 ? error : syncDirectory(from.parent());
}

}  // namespace corvalen
