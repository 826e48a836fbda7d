// SPDX-License-Identifier: MIT
#include <cerrno>
#include <optional>
#include <string>

#include "foundation/property_list.hpp"
#include "operations/errors.hpp"
#include "operations/operation_arguments.hpp"
#include "settings/settings_operations.hpp"

namespace corvalen {
namespace {

/// Parses a property list; std::nullopt for an empty text. False with an error for a text that
/// is not a property list, or a value that a store cannot hold under this key: nested too deeply,
/// too many values, characters that XML cannot have.
bool valueFromText(const std::string& text, const std::string& key, std::optional<Value>* value,
                   ErrorRef* error) {
    if (text.empty()) return true;
    ErrorRef reason;
    *value = propertyListFromData(text, &reason);
    if (*value && xmlPropertyList(Dictionary{{key, **value}}, &reason)) return true;
    return fail(error,
                makePosixError(EINVAL, Dictionary{{std::string(kUnderlyingErrorKey), reason}}));
}

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

ErrorRef SettingsOperations::performOperationModifyPreferencesWithArguments(
    const Array& arguments) {
    const std::string& key = stringArgument(arguments, 0);
    const std::string& application = stringArgument(arguments, 1);
    const std::string& user = stringArgument(arguments, 2);
    const std::string& host = stringArgument(arguments, 3);
    if (key.empty() || application.empty() || user.empty() || host.empty()) {
        return makePosixError(EINVAL);
    }
    std::optional<Value> value;
    ErrorRef error;
    if (!valueFromText(stringArgument(arguments, 4), key, &value, &error)) return error;

    const PreferencesDomain domain{
        application == kGlobalDomain ? preferences::kAnyApplication : application, user, host};
    if (_services.preferences->setValueAndSynchronize(key, value ? &*value : nullptr, domain)) {
        return nullptr;
    }
    return makeOperationError(OperationErrorCode::cannotUpdatePreference);
}

ErrorRef SettingsOperations::performOperationModifySysconfWithArguments(const Array& arguments) {
    const std::string& sessionName = stringArgument(arguments, 0);
    const std::string& key = stringArgument(arguments, 2);
    if (sessionName.empty() || key.empty()) return makePosixError(EINVAL);
    std::optional<Value> value;
    ErrorRef error;
    if (!valueFromText(stringArgument(arguments, 3), key, &value, &error)) return error;

    const auto session =
        _services.systemConfiguration->create(sessionName, stringArgument(arguments, 1));
    if (!session) return cannotUpdateConfiguration();
    if (!session->lock()) return makePosixError(EBUSY);
    const bool changed = changeConfiguration(*session, key, value);
    session->unlock();
    return changed ? nullptr : cannotUpdateConfiguration();
}

}  // namespace corvalen
