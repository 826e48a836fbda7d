// SPDX-License-Identifier: MIT
// A program that has been found.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <string_view>

#include "corvalen/descriptor.hpp"

namespace corvalen {

/// A program and the folder that it lies in, both held by descriptors that read nothing (open(2),
/// O_PATH): whatever happens to the names afterwards, the checks mean these two, and so does the
/// execution of everything but scripts.
class ExecutableFile {
  public:
    /// Follows the links in `path`. Nothing, with errno set, for an empty path and when no object
    /// is there.
    static std::optional<ExecutableFile> open(std::string_view path);

    /// The path as it was given, which the program is told as its own name.
    [[nodiscard]] const std::string& path() const noexcept { return _path; }
    /// The path without links, for the interpreter of a script.
    [[nodiscard]] const std::string& resolvedPath() const noexcept { return _resolvedPath; }
    [[nodiscard]] int descriptor() const noexcept { return _file.get(); }

    [[nodiscard]] bool isFolder() const noexcept;
    /// Whether nobody but the system can have changed or exchanged it: no folder, and it and its
    /// folder belong to user 0 and group 0 and can be written by neither group nor others.
    [[nodiscard]] bool hasSafePermissions() const noexcept;

  private:
    ExecutableFile(std::string path, std::string resolvedPath, UniqueFd folder, UniqueFd file)
        : _path(std::move(path)),
          _resolvedPath(std::move(resolvedPath)),
          _folder(std::move(folder)),
          _file(std::move(file)) {}

    std::string _path;
    std::string _resolvedPath;
    UniqueFd _folder;
    UniqueFd _file;
};

}  // namespace corvalen
