// SPDX-License-Identifier: MIT
#include "platform/processes/executable_file.hpp"

#include <fcntl.h>

#include <cerrno>

#include "foundation/path.hpp"

namespace corvalen {

namespace {

bool statusOf(Descriptor descriptor, struct stat& status) noexcept {
    return ::fstat(descriptor.get(), &status) == 0;
}

bool belongsToTheSystem(const struct stat& status) noexcept {
    return status.st_uid == 0 && status.st_gid == 0 && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

}  // namespace

Result<ExecutableFile> ExecutableFile::open(std::string_view path) {
    if (path.empty() || path.find('\0') != std::string_view::npos) return failure(ENOENT);
    std::string resolved = resolveSymlinksInPath(path);
    std::string folderPath = deleteLastPathComponent(resolved);
    if (folderPath.empty()) folderPath = ".";
    UniqueFd folder(::open(folderPath.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!folder) return failure(errno);
    const std::string name(lastPathComponent(resolved));
    // A link put here meanwhile would lead out of the directory that is checked.
    UniqueFd file(::openat(folder.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!file || !statusOf(file, status)) return failure(errno);
    if (S_ISLNK(status.st_mode)) return failure(ENOENT);
    return ExecutableFile(std::string(path), std::move(resolved), std::move(folder),
                          std::move(file));
}

bool ExecutableFile::isFolder() const noexcept {
    struct stat status {};
    return statusOf(_file, status) && S_ISDIR(status.st_mode);
}

bool ExecutableFile::hasSafePermissions() const noexcept {
    struct stat file {};
    struct stat folder {};
    return statusOf(_file, file) && !S_ISDIR(file.st_mode) && belongsToTheSystem(file) &&
           statusOf(_folder, folder) && belongsToTheSystem(folder);
}

}  // namespace corvalen
