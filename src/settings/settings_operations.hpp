// SPDX-License-Identifier: MIT
// Operations that change settings of the machine and its users, and end processes.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string_view>

#include "corvalen/error.hpp"
#include "corvalen/value.hpp"
#include "operations/method_table.hpp"
#include "platform/firmware_variables.hpp"
#include "platform/kernel_variables.hpp"
#include "platform/power_management.hpp"
#include "platform/preferences.hpp"
#include "platform/processes.hpp"
#include "platform/system_configuration.hpp"

namespace corvalen {

/// The services of the platform that settings are changed with; all are needed.
struct SettingsServices {
    std::unique_ptr<PowerManagement> powerManagement;
    std::unique_ptr<KernelVariables> kernelVariables;
    std::unique_ptr<FirmwareVariables> firmwareVariables;
    std::unique_ptr<Preferences> preferences;
    std::unique_ptr<SystemConfiguration> systemConfiguration;
    std::unique_ptr<Processes> processes;
};

/// Those of this machine, at their usual places.
[[nodiscard]] SettingsServices hostSettingsServices();

/// Puts the stored system configuration of this machine in force where it is not; for the start.
void restoreHostSettings();

/// Writes a line to the system log at the level of errors.
using LogErrorMessage = std::function<void(std::string_view line)>;

/// Durability: what modify-preferences, modify-sysconf, modify-powersetting and modify-diskspindown
/// answer with success is on the disk; a store has the whole old or the whole new content,
/// whatever happens. The firmware keeps its variables itself. Kernel variables last until the
/// machine stops.
///
/// The methods give null for success and may be called by several threads; the requests for power
/// settings are handled one after the other, because they read, change and write whole
/// dictionaries.
class SettingsOperations final : public OperationGroup {
  public:
    SettingsOperations(SettingsServices services, LogErrorMessage logErrorMessage);

    void registerMethods(MethodTable& table) override;

    /// Setting name, value: for battery and mains, as far as the machine has them.
    ErrorRef performOperationModifyPowersettingWithArguments(const Array& arguments);
    /// Minutes, for the power source in use.
    ErrorRef performOperationModifyDiskspindownWithArguments(const Array& arguments);
    /// Variable name, integer.
    ErrorRef performOperationModifyKernelsettingWithArguments(const Array& arguments);
    /// Variable name, value as text.
    ErrorRef performOperationModifyNvramWithArguments(const Array& arguments);
    /// Key, application, user, host, value as the text of a property list or empty to remove.
    ErrorRef performOperationModifyPreferencesWithArguments(const Array& arguments);
    /// Caller's name, file identifier or empty, key, value as above.
    ErrorRef performOperationModifySysconfWithArguments(const Array& arguments);
    /// Process identifier.
    ErrorRef performOperationTerminateProcessWithArguments(const Array& arguments);

    /// Selects the custom profile of a power source, in force at once, and changes an existing
    /// setting in the copy of its preferences. True when that is done and for a source that the
    /// machine does not have.
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
