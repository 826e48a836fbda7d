// SPDX-License-Identifier: MIT
// Operations that change settings of the machine and its users, and terminate processes.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string_view>

#include "corvalen/error.hpp"
#include "corvalen/value.hpp"
#include "operations/operation_rows.hpp"
#include "platform/processes/processes.hpp"
#include "platform/settings/firmware_variables.hpp"
#include "platform/settings/kernel_variables.hpp"
#include "platform/settings/power_management.hpp"
#include "platform/settings/preferences.hpp"
#include "platform/settings/system_configuration.hpp"

namespace corvalen {

/// The platform services that the operations use. None may be null.
struct SettingsServices {
    std::unique_ptr<PowerManagement> powerManagement;
    std::unique_ptr<KernelVariables> kernelVariables;
    std::unique_ptr<FirmwareVariables> firmwareVariables;
    std::unique_ptr<Preferences> preferences;
    std::unique_ptr<SystemConfiguration> systemConfiguration;
    std::unique_ptr<Processes> processes;
};

/// Makes the services of this machine, with their stores at the usual paths.
[[nodiscard]] SettingsServices hostSettingsServices();

/// Puts the stored system configuration in force where none is. Called when the daemon starts.
void restoreHostSettings();

/// Writes a line to the system log at the level of errors.
using LogErrorMessage = std::function<void(std::string_view line)>;

/// Durability: when modify-preferences, modify-sysconf, modify-powersetting or modify-diskspindown
/// succeeds, the change is on the disk; a store always has the whole old or the whole new content.
/// The firmware keeps its own variables. Kernel variables last until the machine stops.
///
/// The methods return null on success. Any thread may call. Power settings are changed one request
/// at a time, because each reads, changes and writes whole dictionaries.
class SettingsOperations final : public GroupOfRows<SettingsOperations> {
  public:
    SettingsOperations(SettingsServices services, LogErrorMessage logErrorMessage);

    /// Setting name, value. Changes battery and mains, as far as the machine has them.
    ErrorRef performOperationModifyPowersettingWithArguments(const Array& arguments);
    /// Minutes. Changes the power source in use.
    ErrorRef performOperationModifyDiskspindownWithArguments(const Array& arguments);
    /// Variable name, integer.
    ErrorRef performOperationModifyKernelsettingWithArguments(const Array& arguments);
    /// Variable name, value as text.
    ErrorRef performOperationModifyNvramWithArguments(const Array& arguments);
    /// Key, application, user, host, value. The value is a property list as text; empty removes.
    ErrorRef performOperationModifyPreferencesWithArguments(const Array& arguments);
    /// Caller's name, file identifier or empty, key, value (as above).
    ErrorRef performOperationModifySysconfWithArguments(const Array& arguments);
    /// Process identifier; its low 32 bits count.
    ErrorRef performOperationTerminateProcessWithArguments(const Array& arguments);

    /// Selects the custom profile of a power source, which takes effect at once, and changes an
    /// existing setting in the copy of its preferences. True on success, and if the machine does
    /// not have the source.
    bool setPowerManagementValue(const Value* value, std::string_view forKey,
                                 Dictionary* inPreferencesCopy,
                                 std::string_view ifHavingPowerSource,
                                 Dictionary* customizingProfiles);

  private:
    SettingsServices _services;
    LogErrorMessage _logErrorMessage;
    std::mutex _powerMutex;
};

}  // namespace corvalen
