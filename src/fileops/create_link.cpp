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
    Entry existing;
    Entry link;
    ErrorRef error;
    if (hardLink && !openNamed(destination, &existing, &error)) return error;
    if (!openNamed(newPath, &link, &error)) return error;
    if (hardLink) {
        _fileManager.linkItem({existing, destination}, {link, newPath}, &error);
    } else {
        _fileManager.createSymbolicLink({link, newPath}, destination, &error);
    }
    return error;
}

}  // namespace corvalen
