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

bool failWriting(ErrorRef* out, int error, std::string_view path) {
    if (error == ECANCELED) return failWithErrno(out, error);
    if (out != nullptr) *out = makeFileError(FileAccess::write, error, path);
    return false;
}

/// Returns ENOTDIR if either path ends with a slash and the object is not a directory.
int checkSlashes(const Entry& from, const Entry& to) {
    if (!from.mustBeDirectory() && !to.mustBeDirectory()) return 0;
    Object object;
    const int error = openObject(from.address(), &object);
    if (error != 0) return error;
    return object.isDirectory() ? 0 : ENOTDIR;
}

std::string_view pathConcerned(int code, const NamedEntry& from, const NamedEntry& to) noexcept {
    const bool aboutDestination =
        code == EEXIST || code == ENOSPC || (code == ENOENT && existsItself(from.entry.address()));
    return aboutDestination ? to.path : from.path;
}

class KernelFileManager : public FileManager {
  public:
    explicit KernelFileManager(FileFlags& flags) noexcept : _flags(flags) {}

    bool moveItem(const NamedEntry& from, const NamedEntry& to, ErrorRef* error) override {
        int code = checkSlashes(from.entry, to.entry);
        if (code == 0) code = renameExclusively(from.entry.address(), to.entry.address());
        if (code == EXDEV) return moveToOtherFileSystem(from, to, error);
        if (code != 0) return failWriting(error, code, pathConcerned(code, from, to));
        // New name first: after a crash the object may have both names, never none.
        code = syncDirectory(to.entry.parent());
        if (code != 0) return failWriting(error, code, to.path);
        code = syncDirectory(from.entry.parent());
        return code == 0 || failWriting(error, code, from.path);
    }

    bool linkItem(const NamedEntry& from, const NamedEntry& to, ErrorRef* error) override {
        int code = checkSlashes(from.entry, to.entry);
        const ObjectAddress existing = from.entry.address();
        const ObjectAddress link = to.entry.address();
        if (code == 0 && ::linkat(existing.parent, existing.name, link.parent, link.name, 0) != 0)
            code = errno;
        if (code != 0) return failWriting(error, code, pathConcerned(code, from, to));
        code = syncDirectory(link.parent);
        return code == 0 || failWriting(error, code, to.path);
    }

    bool createSymbolicLink(const NamedEntry& at, const std::string& destination,
                            ErrorRef* error) override {
        const ObjectAddress link = at.entry.address();
        int code = at.entry.mustBeDirectory() ? ENOENT : 0;
        if (code == 0 && ::symlinkat(destination.c_str(), link.parent, link.name) != 0)
            code = errno;
        if (code == 0) code = syncDirectory(link.parent);
        return code == 0 || failWriting(error, code, at.path);
    }

    bool removeItem(const ObjectAddress& object, std::string_view path, ErrorRef* error) override {
        std::string failedPath;
        const int code = removeTree(object, {.cancellation = &currentCancellation()}, &failedPath);
        return code == 0 || failWriting(error, code, appendPathComponent(path, failedPath));
    }

  private:
    bool moveToOtherFileSystem(const NamedEntry& from, const NamedEntry& to, ErrorRef* error) {
        std::string failedPath;
        bool aboutDestination = false;
        const int code = moveAcross(from.entry, to.entry, _flags, &failedPath, &aboutDestination);
        if (code == 0) return true;
        return failWriting(
            error, code,
            aboutDestination ? std::string(to.path) : appendPathComponent(from.path, failedPath));
    }

    FileFlags& _flags;
};

}  // namespace

std::unique_ptr<FileManager> makeFileManager(FileFlags& flags) {
    return std::make_unique<KernelFileManager>(flags);
}

}  // namespace corvalen
