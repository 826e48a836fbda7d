// SPDX-License-Identifier: MIT
// modify-hfsattr: sets an object's type and creator codes and its hidden attribute.
#include <cerrno>
#include <cstdint>

#include "fileops/file_operations.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "platform/files/finder_info.hpp"

namespace corvalen {
namespace {

/// Four characters in 32 bits.
std::uint32_t finderCode(const Array& arguments, std::size_t index) noexcept {
    return static_cast<std::uint32_t>(numberArgument(arguments, index).unsignedIntegerValue());
}

}  // namespace

ErrorRef FileOperations::performOperationModifyHfsattrWithArguments(const Array& arguments) {
    const std::string& text = stringArgument(arguments, 0);
    const std::optional<ClientPath> path = ClientPath::from(text);
    if (!path) return makePosixError(EINVAL);
    const Result<> changed = openObject(*path).and_then([&](const Object& object) {
        // If the hidden attribute cannot be set, the codes stay.
        return setFinderCodes(object.address(), finderCode(arguments, 1), finderCode(arguments, 2))
            .and_then([&] {
                return setFinderInvisible(object.address(),
                                          numberArgument(arguments, 3).boolValue());
            });
    });
    return changed ? nullptr : makeFileError(FileAccess::write, changed.error(), text);
}

}  // namespace corvalen
