// SPDX-License-Identifier: MIT
// rename-fileobject: renames or moves an object, a symlink itself, also to another file system.
// Arguments: path, new path (S). Nothing may exist at the new path.
#include <cerrno>

#include "fileops/file_operations.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"

namespace corvalen {

ErrorRef FileOperations::performOperationRenameFileobjectWithArguments(const Array& arguments) {
    const std::string& from = stringArgument(arguments, 0);
    const std::string& to = stringArgument(arguments, 1);
    if (hasNulByte(from) || hasNulByte(to)) return makePosixError(EINVAL);
    const Result<Entry, ErrorRef> source = openNamed(from);
    if (!source) return source.error();
    const Result<Entry, ErrorRef> destination = openNamed(to);
    if (!destination) return destination.error();
    ErrorRef error;
    _fileManager.moveItem({*source, from}, {*destination, to}, &error);
    Cancellation& cancellation = currentCancellation();
    return error && cancellation.requested() ? cancelledError(cancellation) : error;
}

}  // namespace corvalen
