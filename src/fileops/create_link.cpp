// SPDX-License-Identifier: MIT
// create-link: creates a symbolic or a hard link. Arguments: path of the link (S), target (S), hard
// (N, a Boolean). A symlink stores the target as given, unchecked; a hard link names the existing
// object there, a symlink itself.
#include <cerrno>

#include "fileops/file_operations.hpp"
#include "operations/operation_arguments.hpp"

namespace corvalen {

ErrorRef FileOperations::performOperationCreateLinkWithArguments(const Array& arguments) {
    const std::string& newPath = stringArgument(arguments, 0);
    const std::string& target = stringArgument(arguments, 1);
    if (hasNulByte(newPath) || hasNulByte(target)) return makePosixError(EINVAL);
    const bool hardLink = numberArgument(arguments, 2).boolValue();
    ErrorRef error;
    if (!hardLink) {
        const Result<Entry, ErrorRef> link = openNamed(newPath);
        if (!link) return link.error();
        _fileManager.createSymbolicLink({*link, newPath}, target, &error);
        return error;
    }
    const Result<Entry, ErrorRef> existing = openNamed(target);
    if (!existing) return existing.error();
    const Result<Entry, ErrorRef> link = openNamed(newPath);
    if (!link) return link.error();
    _fileManager.linkItem({*existing, target}, {*link, newPath}, &error);
    return error;
}

}  // namespace corvalen
