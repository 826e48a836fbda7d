// SPDX-License-Identifier: MIT
// modify-kernelsetting: sets an integer variable of the running kernel. Arguments: name, spelled as
// for sysctl(8) (S); value, signed, 64 bits (N).
#include <cerrno>

#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "settings/settings_operations.hpp"

namespace corvalen {

ErrorRef SettingsOperations::performOperationModifyKernelsettingWithArguments(
    const Array& arguments) {
    const std::int64_t value = numberArgument(arguments, 1).longLongValue();
    const std::string& name = stringArgument(arguments, 0);
    if (name.empty()) return makePosixError(EINVAL);
    return errorOf(_services.kernelVariables->setInteger(name, value));
}

}  // namespace corvalen
