// SPDX-License-Identifier: MIT
// An open program file and its directory.
#pragma once

#include <sys/stat.h>

#include <string>
#include <string_view>
#include <utility>

#include "corvalen/descriptor.hpp"
#include "foundation/borrowed_descriptor.hpp"
#include "foundation/result.hpp"

namespace corvalen {

/// A program and its directory, both open with O_PATH (open(2)): renames cannot change which
/// objects are checked and executed. Scripts are the exception: their interpreter opens them by
/// path.
class ExecutableFile {
  public:
    /// Follows links in `path`. Fails if the path is empty or does not lead to an object.
    [[nodiscard]] static Result<ExecutableFile> open(std::string_view path);

    /// The path as given: argv[0] of the program.
    [[nodiscard]] const std::string& path() const noexcept { return _path; }
    /// The path without links, which the interpreter of a script opens.
    [[nodiscard]] const std::string& resolvedPath() const noexcept { return _resolvedPath; }
    [[nodiscard]] Descriptor descriptor() const noexcept { return _file; }

    [[nodiscard]] bool isFolder() const noexcept;
    /// Returns whether only the system can have changed or replaced it: it is no directory, and it
    /// and its directory belong to user 0 and group 0 and are not writable by group or others.
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
