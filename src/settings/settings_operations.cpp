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

}  // namespace corvalen
