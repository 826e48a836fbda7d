// SPDX-License-Identifier: MIT
// create-link: creates a symbolic or a hard link.
#include <cerrno>

#include "fileops/file_operations.hpp"
#include "fileops/named_entry.hpp"
#include "operations/operation_arguments.hpp"

namespace corvalen {

ErrorRef FileOperations::performOperationCreateLinkWithArguments(const Array& arguments) {
    const std::string& newPath = stringArgument(arguments, 0);
    const std::string& destination = stringArgument(arguments, 1);
    if (hasNulByte(newPath) || hasNulByte(destination)) return makePosixError(EINVAL);
    const bool hardLink = numberArgument(arguments, 2).boolValue();
    ErrorRef error;
    if (!hardLink) {
        const Result<Entry, ErrorRef> link = openNamed(newPath);
        if (!link) return link.error();
        _fileManager.createSymbolicLink({*link, newPath}, destination, &error);
        return error;
    }
    const Result<Entry, ErrorRef> existing = openNamed(destination);
    if (!existing) return existing.error();
    const Result<Entry, ErrorRef> link = openNamed(newPath);
    if (!link) return link.error();
    _fileManager.linkItem({*existing, destination}, {*link, newPath}, &error);
    return error;
}

}  // namespace corvalen
