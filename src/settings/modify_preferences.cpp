// SPDX-License-Identifier: MIT
// modify-preferences: sets or removes a preference value of a user or of all users. Arguments (S):
// key, application, user, host; value as a property list, empty to remove the key.
#include <cerrno>
#include <optional>
#include <string>

#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "settings/settings_operations.hpp"

namespace corvalen {

ErrorRef SettingsOperations::performOperationModifyPreferencesWithArguments(
    const Array& arguments) {
    const std::string& key = stringArgument(arguments, 0);
    const std::string& application = stringArgument(arguments, 1);
    const std::string& user = stringArgument(arguments, 2);
    const std::string& host = stringArgument(arguments, 3);
    if (key.empty() || application.empty() || user.empty() || host.empty()) {
        return makePosixError(EINVAL);
    }
    const auto parsed = valueFromText(stringArgument(arguments, 4), key);
    if (!parsed) return parsed.error();
    const std::optional<Value>& value = *parsed;

    const PreferencesDomain domain{
        application == kGlobalDomain ? preferences::kAnyApplication : application, user, host};
    if (_services.preferences->setValueAndSynchronize(key, value ? &*value : nullptr, domain)) {
        return nullptr;
    }
    return makeOperationError(OperationErrorCode::cannotUpdatePreference);
}

}  // namespace corvalen
