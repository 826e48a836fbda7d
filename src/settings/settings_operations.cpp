// SPDX-License-Identifier: MIT
#include "settings/settings_operations.hpp"

#include <string>

#include "operations/names.hpp"

namespace corvalen {

SettingsServices hostSettingsServices() {
    const std::string store(kStoreDirectory);
    return {makePowerManagement({.store = store}),
            makeKernelVariables(),
            makeFirmwareVariables(),
            makePreferences(),
            makeSystemConfiguration(store, "/run/" + std::string(kServiceName)),
            makeProcesses()};
}

SettingsOperations::SettingsOperations(SettingsServices services, LogErrorMessage logErrorMessage)
    : _services(std::move(services)), _logErrorMessage(std::move(logErrorMessage)) {}

void SettingsOperations::registerMethods(MethodTable& table) {
    using Method = ErrorRef (SettingsOperations::*)(const Array&);
    const auto add = [this, &table](std::string_view selector, Method method) {
        table.add(selector, PlainOperationMethod([this, method](const Array& arguments) {
                      return (this->*method)(arguments);
                  }));
    };
    using Self = SettingsOperations;
    add("performOperationModifyPowersettingWithArguments:",
        &Self::performOperationModifyPowersettingWithArguments);
    add("performOperationModifyDiskspindownWithArguments:",
        &Self::performOperationModifyDiskspindownWithArguments);
    add("performOperationModifyKernelsettingWithArguments:",
        &Self::performOperationModifyKernelsettingWithArguments);
    add("performOperationModifyNvramWithArguments:",
        &Self::performOperationModifyNvramWithArguments);
    add("performOperationModifyPreferencesWithArguments:",
        &Self::performOperationModifyPreferencesWithArguments);
    add("performOperationModifySysconfWithArguments:",
        &Self::performOperationModifySysconfWithArguments);
    add("performOperationTerminateProcessWithArguments:",
        &Self::performOperationTerminateProcessWithArguments);
}

}  // namespace corvalen
