// SPDX-License-Identifier: MIT
// Operations that change settings of the machine and its users, and terminate processes.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "corvalen/error.hpp"
#include "corvalen/value.hpp"
#include "operations/operation_rows.hpp"
#include "platform/processes/processes.hpp"
#include "platform/settings/settings.hpp"

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

/// Writes a line about a failure to the log of the request.
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

    // Each file describes its arguments.
    ErrorRef performOperationModifyPowersettingWithArguments(const Array& arguments);
    ErrorRef performOperationModifyDiskspindownWithArguments(const Array& arguments);
    ErrorRef performOperationModifyKernelsettingWithArguments(const Array& arguments);
    ErrorRef performOperationModifyNvramWithArguments(const Array& arguments);
    ErrorRef performOperationModifyPreferencesWithArguments(const Array& arguments);
    ErrorRef performOperationModifySysconfWithArguments(const Array& arguments);
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
    std::mutex _firmwareMutex;
};

// What the files of the operations share.

/// The failures on power settings. The suggestion has the wire contract's code of `result`, 0 for a
/// success.
[[nodiscard]] ErrorRef cannotSetPreferences(const Result<>& result);
[[nodiscard]] ErrorRef cannotReadPreferences();

/// Parses a property list; std::nullopt for an empty text. Fails for a text that is not a property
/// list, and for a value that a store cannot hold under this key: nested too deeply, too many
/// values, characters that XML cannot have.
[[nodiscard]] Result<std::optional<Value>, ErrorRef> valueFromText(const std::string& text,
                                                                   const std::string& key);

}  // namespace corvalen
