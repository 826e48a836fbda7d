// SPDX-License-Identifier: MIT
// touch-fileobject: sets an object's access and modification times to now.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "fileops/file_operations.hpp"
#include "operations/operation_arguments.hpp"

namespace corvalen {

ErrorRef FileOperations::performOperationTouchFileobjectWithArguments(const Array& arguments) {
    const std::optional<ClientPath> path = ClientPath::from(stringArgument(arguments, 0));
    if (!path) return makePosixError(EINVAL);
    Object object;
    const int code = openObject(*path, &object);
    if (code != 0) return makePosixError(meansMissing(code) ? ENOENT : code);
    const int result = ::utimensat(object.descriptor.get(), "", nullptr, AT_EMPTY_PATH);
    return result == 0 ? nullptr : makePosixError(errno);
}

}  // namespace corvalen
