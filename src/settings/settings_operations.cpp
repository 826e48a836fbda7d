// SPDX-License-Identifier: MIT
#include "settings/settings_operations.hpp"

#include <string>

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

void SettingsOperations::registerMethods(MethodTable& table) {
    using Self = SettingsOperations;
    table.add("performOperationModifyPowersettingWithArguments:", *this,
              &Self::performOperationModifyPowersettingWithArguments);
    table.add("performOperationModifyDiskspindownWithArguments:", *this,
              &Self::performOperationModifyDiskspindownWithArguments);
    table.add("performOperationModifyKernelsettingWithArguments:", *this,
              &Self::performOperationModifyKernelsettingWithArguments);
    table.add("performOperationModifyNvramWithArguments:", *this,
              &Self::performOperationModifyNvramWithArguments);
    table.add("performOperationModifyPreferencesWithArguments:", *this,
              &Self::performOperationModifyPreferencesWithArguments);
    table.add("performOperationModifySysconfWithArguments:", *this,
              &Self::performOperationModifySysconfWithArguments);
    table.add("performOperationTerminateProcessWithArguments:", *this,
              &Self::performOperationTerminateProcessWithArguments);
}

}  // namespace corvalen
