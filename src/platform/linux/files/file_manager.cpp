// SPDX-License-Identifier: MIT
#include "platform/files/file_manager.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "foundation/path.hpp"
#include "platform/files/object_removal.hpp"
#include "platform/linux/files/object_copy.hpp"

namespace corvalen {
namespace {

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
