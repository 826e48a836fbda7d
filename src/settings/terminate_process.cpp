// SPDX-License-Identifier: MIT
// terminate-process: terminates a process.
#include "operations/operation_arguments.hpp"
#include "settings/settings_operations.hpp"

namespace corvalen {

ErrorRef SettingsOperations::performOperationTerminateProcessWithArguments(const Array& arguments) {
    const auto lowBits =
        static_cast<std::uint32_t>(numberArgument(arguments, 0).unsignedIntegerValue());
    const int error = _services.processes->terminate(static_cast<std::int32_t>(lowBits));
    return error == 0 ? nullptr : makePosixError(error);
}

}  // namespace corvalen
