// SPDX-License-Identifier: MIT
#include "treewalk/searched_folder.hpp"

#include <sys/stat.h>

#include <cerrno>

#include "foundation/path.hpp"
#include "operations/operation_arguments.hpp"
#include "platform/entry.hpp"

namespace corvalen {

ErrorRef openSearchedFolder(std::string_view path, SearchedFolder* folder) {
    if (path.empty()) return makePosixError(EINVAL);
    std::string resolved = resolveSymlinksInPath(path);
    struct stat attributes {};
    if (resolved.find('\0') != std::string::npos || ::stat(resolved.c_str(), &attributes) != 0)
        return makePosixError(ENOENT);
    if (!S_ISDIR(attributes.st_mode)) return makePosixError(ENOTDIR);
    folder->descriptor = openResolvedDirectory(resolved.c_str());
    folder->path = std::move(resolved);
    return nullptr;
}

ErrorRef openSearchedFolder(const Array& arguments, SearchedFolder* folder) {
    return openSearchedFolder(stringArgument(arguments, 0), folder);
}

}  // namespace corvalen
