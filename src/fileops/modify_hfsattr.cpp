// SPDX-License-Identifier: MIT
// modify-hfsattr: sets an object's type and creator codes and its hidden attribute, symlinks
// followed. They are in the attribute user.com.apple.FinderInfo, which only files and directories
// can have. Arguments: path (S), type and creator (N, four characters each), hidden (N, a Boolean).
#include <cerrno>
#include <cstdint>

#include "fileops/file_operations.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "platform/files/file_attributes.hpp"

namespace corvalen {
namespace {

/// The low 32 bits: four characters, the first in the highest byte.
std::uint32_t finderCode(const Array& arguments, std::size_t index) noexcept {
    return static_cast<std::uint32_t>(numberArgument(arguments, index).unsignedIntegerValue());
}

}  // namespace

ErrorRef FileOperations::performOperationModifyHfsattrWithArguments(const Array& arguments) {
    const std::string& text = stringArgument(arguments, 0);
    const std::optional<ClientPath> path = ClientPath::from(text);
    if (!path) return makePosixError(EINVAL);
    const Result<> changed = openObject(*path).and_then([&](const Object& object) {
        // The new codes stay set if the hidden attribute cannot be set.
        return setFinderCodes(object.address(), finderCode(arguments, 1), finderCode(arguments, 2))
            .and_then([&] {
                return setFinderInvisible(object.address(),
                                          numberArgument(arguments, 3).boolValue());
            });
    });
    return changed ? nullptr : makeFileError(FileAccess::write, changed.error(), text);
}

}  // namespace corvalen
