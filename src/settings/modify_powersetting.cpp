// SPDX-License-Identifier: MIT
// modify-powersetting: selects the custom profiles of battery and mains, as far as the machine has
// them, and changes a setting that each of them has. Arguments: name of the setting (S), value (N,
// unchecked). A failure after a profile was selected leaves it selected.
#include <fmt/core.h>

#include <cerrno>
#include <string>

#include "operations/operation_arguments.hpp"
#include "settings/settings_operations.hpp"

namespace corvalen {

ErrorRef SettingsOperations::performOperationModifyPowersettingWithArguments(
    const Array& arguments) {
    const std::string& name = stringArgument(arguments, 0);
    if (name.empty()) return makePosixError(EINVAL);
    const Value value(numberArgument(arguments, 1));

    const std::lock_guard lock(_powerMutex);
    auto profiles = _services.powerManagement->copyActivePowerProfiles();
    auto preferences = _services.powerManagement->copyPMPreferences();
    if (!profiles || !preferences) return cannotReadPreferences();
    // Kept: the code is 0 unless writing the settings fails.
    Result<> written;
    if (setPowerManagementValue(&value, name, &*preferences, kBatteryPowerSource, &*profiles) &&
        setPowerManagementValue(&value, name, &*preferences, kMainsPowerSource, &*profiles)) {
        written = _services.powerManagement->setPMPreferences(*preferences);
        if (written) return nullptr;
    }
    return cannotSetPreferences(written);
}

bool SettingsOperations::setPowerManagementValue(const Value* value, std::string_view forKey,
                                                 Dictionary* inPreferencesCopy,
                                                 std::string_view ifHavingPowerSource,
                                                 Dictionary* customizingProfiles) {
    if (value == nullptr || value->isNil() || forKey.empty() || ifHavingPowerSource.empty() ||
        inPreferencesCopy == nullptr || customizingProfiles == nullptr) {
        return false;
    }
    Value* profile = customizingProfiles->find(ifHavingPowerSource);
    if (profile == nullptr) return true;
    *profile = kCustomPowerProfile;
    if (!_services.powerManagement->setActivePowerProfiles(*customizingProfiles)) {
        _logErrorMessage("Could not set active power profile.");
        return false;
    }
    Value* settings = inPreferencesCopy->find(ifHavingPowerSource);
    Dictionary* dictionary = settings != nullptr ? settings->dictionary() : nullptr;
    Value* setting = dictionary != nullptr ? dictionary->find(forKey) : nullptr;
    if (setting == nullptr) {
        _logErrorMessage(fmt::format("The power source '{}' does not support the setting '{}'.",
                                     ifHavingPowerSource, forKey));
        return false;
    }
    *setting = *value;
    return true;
}

}  // namespace corvalen
