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

Result<std::optional<Value>, ErrorRef> valueFromText(const std::string& text,
                                                     const std::string& key) {
    if (text.empty()) return std::nullopt;
    Result<Value, ErrorRef> value = propertyListFromData(text);
    const Result<std::string, ErrorRef> stored =
        value ? xmlPropertyList(Dictionary{{key, *value}}) : failure(value.error());
    if (stored) return *std::move(value);
    return failure(
        makePosixError(EINVAL, Dictionary{{std::string(kUnderlyingErrorKey), stored.error()}}));
}

}  // namespace corvalen
