// SPDX-License-Identifier: MIT
// touch-fileobject: sets an object's access and modification times to now. Argument: path (S),
// symlinks followed. Creates nothing.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "fileops/file_operations.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"

namespace corvalen {

ErrorRef FileOperations::performOperationTouchFileobjectWithArguments(const Array& arguments) {
    const std::optional<ClientPath> path = ClientPath::from(stringArgument(arguments, 0));
    if (!path) return makePosixError(EINVAL);
    const Result<Object> object = openObject(*path);
    if (meansMissing(object)) return makePosixError(ENOENT);
    if (!object) return makePosixError(object.error());
    return errorOf(resultOf(::utimensat(object->descriptor.get(), "", nullptr, AT_EMPTY_PATH)));
}

}  // namespace corvalen
