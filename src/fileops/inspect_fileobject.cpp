// SPDX-License-Identifier: MIT
// inspect-fileobject: answers whether an object exists and whether it is a directory. Argument:
// path (S), symlinks followed. Answer: ObjectExistence.
#include <cerrno>
#include <cstdint>

#include "fileops/file_operations.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"

namespace corvalen {
namespace {

enum class Existence : std::uint8_t { nothing = 0, folder = 1, otherObject = 2 };

}  // namespace

ErrorRef FileOperations::performOperationInspectFileobjectWithArguments(const Array& arguments) {
    const std::optional<ClientPath> path = ClientPath::from(stringArgument(arguments, 0));
    if (!path) return makePosixError(EINVAL);
    Existence existence = Existence::nothing;
    const Result<Object> object = openObject(*path);
    if (!object && !meansMissing(object)) return makePosixError(object.error());
    if (object) existence = object->isDirectory() ? Existence::folder : Existence::otherObject;
    return makeOperationAnswer(kKeyObjectExistenceInfo, static_cast<int>(existence));
}

}  // namespace corvalen
