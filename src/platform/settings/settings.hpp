// SPDX-License-Identifier: MIT
// The settings of the machine: variables of the firmware and the kernel, power management,
// preferences, and the system configuration.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "corvalen/value.hpp"
#include "foundation/result.hpp"

namespace corvalen {

/// Variables of the firmware. Any thread may call.
class FirmwareOptions {
  public:
    virtual ~FirmwareOptions() = default;

    /// Returns the value of a variable: a Boolean, a number, a string or data; std::nullopt
    /// if the variable does not exist.
    [[nodiscard]] virtual Result<std::optional<Value>> copyValue(std::string_view name) = 0;
    /// Writes the value; on failure the old one stays.
    [[nodiscard]] virtual Result<> setValue(std::string_view name, const Value& value) = 0;
};

/// Access to the firmware. Any thread may call.
class FirmwareVariables {
  public:
    virtual ~FirmwareVariables() = default;

    /// Returns null if the firmware has no variables.
    [[nodiscard]] virtual Result<std::unique_ptr<FirmwareOptions>> openOptions() = 0;
};

/// Maximum size of a variable's contents in bytes; its file also holds 4 bytes of attributes.
inline constexpr std::size_t kMaximumFirmwareVariableSize = std::size_t{64} * 1024;

/// The vendor GUID of variables that are named without one.
inline constexpr std::string_view kFirmwareVendorGuid = "5c7b5301-46ef-4c62-b705-f1cc62161855";

/// The variables of UEFI in an efivarfs (Documentation/filesystems/efivarfs.rst). A name is
/// "Name-GUID", or "Name" for a variable under `kFirmwareVendorGuid`. The contents of variables
/// under that GUID begin with "KVX" and a letter for the kind ("b", "n", "s", "d"), else they are
/// data; other variables hold data. An existing variable keeps its attributes, a new one is
/// non-volatile and visible at boot and run time.
[[nodiscard]] std::unique_ptr<FirmwareVariables> makeFirmwareVariables(
    std::string folder = "/sys/firmware/efi/efivars");

/// Stateless; any thread may call.
class KernelVariables {
  public:
    virtual ~KernelVariables() = default;

    /// Sets an integer variable. ENOENT if no variable has this name, malformed names included.
    [[nodiscard]] virtual Result<> setInteger(std::string_view name, std::int64_t value) = 0;
};

/// The variables below /proc/sys (proc(5)). Names are spelled as for sysctl(8): with dots, or with
/// slashes, between which a dot is part of the name ("net/ipv4/conf/br.9/mtu"). The value is
/// written as decimal text in one write. Every call fails without openat2(2).
[[nodiscard]] std::unique_ptr<KernelVariables> makeKernelVariables();

inline constexpr std::string_view kMainsPowerSource = "AC Power";
inline constexpr std::string_view kBatteryPowerSource = "Battery Power";
inline constexpr std::string_view kUninterruptiblePowerSource = "UPS Power";
inline constexpr std::string_view kDiskSleepTimerSetting = "Disk Sleep Timer";  // minutes
/// The profile that consists of the custom settings.
inline constexpr std::int64_t kCustomPowerProfile = -1;

/// Any thread may call; callers that read, change and write must exclude each other.
class PowerManagement {
  public:
    virtual ~PowerManagement() = default;

    /// Returns the number of the profile in force of each power source; std::nullopt if they cannot
    /// be read.
    [[nodiscard]] virtual std::optional<Dictionary> copyActivePowerProfiles() = 0;
    [[nodiscard]] virtual Result<> setActivePowerProfiles(const Dictionary& profiles) = 0;
    /// Returns a dictionary of settings for each power source; std::nullopt if they cannot be read.
    [[nodiscard]] virtual std::optional<Dictionary> copyPMPreferences() = 0;
    [[nodiscard]] virtual Result<> setPMPreferences(const Dictionary& preferences) = 0;
    /// Returns the source that supplies the machine; "AC Power" if that is unknown.
    [[nodiscard]] virtual std::string providingPowerSourceType() = 0;
};

/// Standby timers of drives.
class DiskStandby {
  public:
    virtual ~DiskStandby() = default;
    /// Sets the timer, in the encoding of ATA, of the drive with this device name. Failures are
    /// ignored.
    virtual void setTimer(const std::string& drive, std::uint8_t ataTimer) = 0;
};

/// Sends drives below /dev the ATA command "idle" (linux/hdreg.h, HDIO_DRIVE_CMD).
[[nodiscard]] std::unique_ptr<DiskStandby> makeDiskStandby();

/// Returns minutes in the encoding of ATA: 0 for never, steps of 5 seconds up to 20 minutes, 21
/// minutes, steps of 30 minutes up to 5.5 hours. Rounds up; negative counts as never, more than 5.5
/// hours as 5.5.
[[nodiscard]] std::uint8_t ataStandbyTimer(std::int64_t minutes) noexcept;

/// Directories that power management reads; it also writes to `store`.
struct PowerManagementFolders {
    std::string store;
    std::string powerSupplies = "/sys/class/power_supply";
    std::string blockDevices = "/sys/block";
};

/// Stores profiles and settings in two property lists of the store directory, and adds defaults for
/// sources of the host that they lack. Writing settings applies only the disk sleep timer of the
/// providing source, on rotating ATA drives.
[[nodiscard]] std::unique_ptr<PowerManagement> makePowerManagement(
    PowerManagementFolders folders, std::unique_ptr<DiskStandby> diskStandby = makeDiskStandby());

/// Name of the global domain in arguments; stands for `kAnyApplication`.
inline constexpr std::string_view kGlobalDomain = "NSGlobalDomain";

/// Texts that stand for any or for the current application, user or host.
namespace preferences {
inline constexpr std::string_view kAnyApplication = "kCFPreferencesAnyApplication";
inline constexpr std::string_view kAnyUser = "kCFPreferencesAnyUser";
inline constexpr std::string_view kCurrentUser = "kCFPreferencesCurrentUser";
inline constexpr std::string_view kAnyHost = "kCFPreferencesAnyHost";
inline constexpr std::string_view kCurrentHost = "kCFPreferencesCurrentHost";
}  // namespace preferences

/// Selects preferences. Each member is one of the texts above or a name.
struct PreferencesDomain {
    std::string_view application;
    std::string_view user;
    std::string_view host;
};

/// Any thread may call; writers of the same file wait for each other.
class Preferences {
  public:
    virtual ~Preferences() = default;

    /// Sets the value of `key`, or removes the key if `value` is null, in the stored file, and
    /// syncs it. Returns false on failure, with the file as `replaceFile` leaves it.
    [[nodiscard]] virtual bool setValueAndSynchronize(std::string_view key, const Value* value,
                                                      const PreferencesDomain& domain) = 0;
};

/// Stores property lists: `<domain>.plist` in `anyUserFolder` for any user and in
/// `.config/preferences` of the home directory for one user, `ByHost/<domain>.<host>.plist` below
/// these for one host, with dots of the host written %2E and percent signs %25. The current host is
/// the host name, any application is ".GlobalPreferences". A user's file is read and written with
/// only that user's rights and without following links, so that a home directory cannot redirect
/// root. A file with other contents is left unchanged. Waiting for a lock fails after ten seconds,
/// since the user may hold it.
[[nodiscard]] std::unique_ptr<Preferences> makePreferences(
    std::string_view anyUserFolder = "/etc/xdg/preferences");

/// One caller's access to one configuration file; its destruction releases the lock. For one
/// thread. The functions return false on failure.
class SystemConfigurationSession {
  public:
    virtual ~SystemConfigurationSession() = default;

    /// Takes the lock; waits for other holders, in this and other processes.
    [[nodiscard]] virtual bool lock() = 0;
    virtual void unlock() = 0;
    /// Change the session's copy, which the first change reads; they need the lock. Removing a
    /// missing key succeeds.
    [[nodiscard]] virtual bool setValue(std::string_view key, const Value& value) = 0;
    [[nodiscard]] virtual bool removeValue(std::string_view key) = 0;
    /// Puts the session's copy in force without storing it.
    [[nodiscard]] virtual bool applyChanges() = 0;
    /// Stores the session's copy atomically (`replaceFile`).
    [[nodiscard]] virtual bool commitChanges() = 0;
};

/// Any thread may call.
class SystemConfiguration {
  public:
    virtual ~SystemConfiguration() = default;

    /// Opens a session of a caller for the configuration file `identifier`; if empty, for the
    /// default one. Returns null on failure.
    [[nodiscard]] virtual std::unique_ptr<SystemConfigurationSession> create(
        std::string_view sessionName, std::string_view identifier) = 0;
};

inline constexpr std::string_view kDefaultConfigurationIdentifier = "preferences.plist";

/// Stores property lists named by identifier in `storeFolder`/system-configuration, which only root
/// can read. Those in force are in `runtimeFolder`/system-configuration, which all users can read.
/// An identifier is a file name without a leading dot.
[[nodiscard]] std::unique_ptr<SystemConfiguration> makeSystemConfiguration(
    std::string storeFolder, std::string runtimeFolder);

/// Puts stored files in force that are not: after a reboot the view is empty. A file in force
/// stays, even if it differs (applied, not committed). Skips files that cannot be read or whose
/// lock is held for a second.
void restoreRunningConfiguration(const std::string& storeFolder, const std::string& runtimeFolder);

}  // namespace corvalen
