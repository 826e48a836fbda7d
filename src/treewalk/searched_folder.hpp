// SPDX-License-Identifier: MIT
// The folder that an operation was asked to walk, and its other arguments.
#pragma once

#include <string>
#include <string_view>

#include "corvalen/descriptor.hpp"
#include "corvalen/error.hpp"
#include "corvalen/value.hpp"

namespace corvalen {

/// An open folder and the path that leads to it without a link.
struct SearchedFolder {
    std::string path;
    /// Not open when nobody may read the folder: walks of it are empty.
    UniqueFd descriptor;
};

/// Resolves the links in `path` and opens what is there. The error is POSIX 22 for an empty path, 2
/// when nothing is there, 20 when it is no folder, null on success. A link that is put into the
/// resolved path meanwhile is not followed.
[[nodiscard]] ErrorRef openSearchedFolder(std::string_view path, SearchedFolder* folder);

/// The same with the first argument of an operation.
[[nodiscard]] ErrorRef openSearchedFolder(const Array& arguments, SearchedFolder* folder);

}  // namespace corvalen
