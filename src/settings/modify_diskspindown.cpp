// SPDX-License-Identifier: MIT
// modify-diskspindown: selects the custom profile of the power source in use and sets its disk
// sleep timer. Argument: idle minutes (N), 0 for never, unchecked. A failure after the profile was
// selected leaves it selected.
#include <string>

#include "operations/operation_arguments.hpp"
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
    if (dictionary == nullptr) return nullptr;  // Kept: no settings, no failure
    dictionary->set(kDiskSleepTimerSetting, numberArgument(arguments, 0));
    written = powerManagement.setPMPreferences(*preferences);
    return written ? nullptr : cannotSetPreferences(written);
}

}  // namespace corvalen
