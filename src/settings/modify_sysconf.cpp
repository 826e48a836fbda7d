// SPDX-License-Identifier: MIT
// modify-sysconf: sets or removes a value of the system configuration. Arguments (S): name of the
// caller (required, but not stored), configuration file (empty for the default one), key; value as
// a property list, empty to remove the key.
#include <cerrno>
#include <optional>
#include <string>

#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "settings/settings_operations.hpp"

namespace corvalen {
namespace {

ErrorRef cannotUpdateConfiguration() {
    return makeOperationError(OperationErrorCode::cannotUpdateSystemConfiguration);
}

/// Called with the session locked. Kept: applies the change before it stores it.
bool changeConfiguration(SystemConfigurationSession& session, const std::string& key,
                         const std::optional<Value>& value) {
    return (value ? session.setValue(key, *value) : session.removeValue(key)) &&
           session.applyChanges() && session.commitChanges();
}

}  // namespace

ErrorRef SettingsOperations::performOperationModifySysconfWithArguments(const Array& arguments) {
    const std::string& sessionName = stringArgument(arguments, 0);
    const std::string& key = stringArgument(arguments, 2);
    if (sessionName.empty() || key.empty()) return makePosixError(EINVAL);
    const auto value = valueFromText(stringArgument(arguments, 3), key);
    if (!value) return value.error();

    const auto session =
        _services.systemConfiguration->create(sessionName, stringArgument(arguments, 1));
    if (!session) return cannotUpdateConfiguration();
    if (!session->lock()) return makePosixError(EBUSY);
    const bool changed = changeConfiguration(*session, key, *value);
    session->unlock();
    return changed ? nullptr : cannotUpdateConfiguration();
}

}  // namespace corvalen
