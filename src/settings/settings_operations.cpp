// SPDX-License-Identifier: MIT
#include "settings/settings_operations.hpp"

#include <cerrno>
#include <string>

#include "foundation/property_list.hpp"
#include "operations/errors.hpp"
#include "operations/names.hpp"

namespace corvalen {
namespace {

std::string runtimeFolder() {
    return "/run/" + std::string(kServiceName);
}

}  // namespace

void restoreHostSettings() {
    restoreRunningConfiguration(std::string(kStoreDirectory), runtimeFolder());
}

SettingsServices hostSettingsServices() {
    const std::string store(kStoreDirectory);
    return {makePowerManagement({.store = store}),
            makeKernelVariables(),
            makeFirmwareVariables(),
            makePreferences(),
            makeSystemConfiguration(store, runtimeFolder()),
            makeProcesses()};
}

SettingsOperations::SettingsOperations(SettingsServices services, LogErrorMessage logErrorMessage)
    : _services(std::move(services)), _logErrorMessage(std::move(logErrorMessage)) {}

ErrorRef cannotSetPreferences(const Result<>& result) {
    const std::int64_t code = result ? 0 : posixCodeFromErrno(result.error().number);
    return makeOperationError(OperationErrorCode::cannotSetPowerPreferences,
                              {.suggestionArguments = {std::to_string(code)}});
}

ErrorRef cannotReadPreferences() {
    return makeOperationError(OperationErrorCode::cannotReadPowerPreferences);
}

bool valueFromText(const std::string& text, const std::string& key, std::optional<Value>* value,
                   ErrorRef* error) {
    if (text.empty()) return true;
    ErrorRef reason;
    *value = propertyListFromData(text, &reason);
    if (*value && xmlPropertyList(Dictionary{{key, **value}}, &reason)) return true;
    return fail(error,
                makePosixError(EINVAL, Dictionary{{std::string(kUnderlyingErrorKey), reason}}));
}

}  // namespace corvalen
