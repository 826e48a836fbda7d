// SPDX-License-Identifier: MIT
// terminate-process: sends a process of any user SIGTERM, which it may ignore. Argument: process
// identifier (N), of which the low 32 bits count, as a signed number. Numbers below 1, which
// kill(2) takes for groups, fail with EINVAL.
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "settings/settings_operations.hpp"

namespace corvalen {

ErrorRef SettingsOperations::performOperationTerminateProcessWithArguments(const Array& arguments) {
    const auto lowBits =
        static_cast<std::uint32_t>(numberArgument(arguments, 0).unsignedIntegerValue());
    return errorOf(_services.processes->terminate(static_cast<std::int32_t>(lowBits)));
}

}  // namespace corvalen
