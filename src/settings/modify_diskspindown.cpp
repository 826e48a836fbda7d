// SPDX-License-Identifier: MIT
// modify-diskspindown: sets the disk sleep timer of the power source in use.
#include <string>

#include "operations/operation_arguments.hpp"
#include "settings/power_errors.hpp"
#include "settings/settings_operations.hpp"

namespace corvalen {

ErrorRef SettingsOperations::performOperationModifyDiskspindownWithArguments(
    const Array& arguments) {
    PowerManagement& powerManagement = *_services.powerManagement;
    const std::lock_guard lock(_powerMutex);
    const std::string source = powerManagement.providingPowerSourceType();
    auto profiles = powerManagement.copyActivePowerProfiles();
    auto preferences = powerManagement.copyPMPreferences();
    if (!profiles || !preferences) return cannotReadPreferences();
    profiles->set(source, kCustomPowerProfile);
    Result<> written = powerManagement.setActivePowerProfiles(*profiles);
    if (!written) return cannotSetPreferences(written);

    Value* settings = preferences->find(source);
    Dictionary* dictionary = settings != nullptr ? settings->dictionary() : nullptr;
    if (dictionary == nullptr) return nullptr;
    dictionary->set(kDiskSleepTimerSetting, numberArgument(arguments, 0));
    written = powerManagement.setPMPreferences(*preferences);
    return written ? nullptr : cannotSetPreferences(written);
}

}  // namespace corvalen
