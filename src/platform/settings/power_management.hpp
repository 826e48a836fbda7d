// SPDX-License-Identifier: MIT
// Power management: settings and profiles of each power source, and the source in use.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "corvalen/value.hpp"
#include "foundation/result.hpp"

namespace corvalen {

inline constexpr std::string_view kMainsPowerSource = "AC Power";
inline constexpr std::string_view kBatteryPowerSource = "Battery Power";
inline constexpr std::string_view kUninterruptiblePowerSource = "UPS Power";
inline constexpr std::string_view kDiskSleepTimerSetting = "Disk Sleep Timer";  // minutes
/// The profile that consists of the custom settings.
inline constexpr std::int64_t kCustomPowerProfile = -1;

/// Any thread may call; callers that read, change and write must
/// exclude each other.
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
/// sources of the host that they lack. Writing settings applies the one that Linux supports: the
/// disk sleep timer of the providing source, on rotating ATA drives.
[[nodiscard]] std::unique_ptr<PowerManagement> makePowerManagement(
    PowerManagementFolders folders, std::unique_ptr<DiskStandby> diskStandby = makeDiskStandby());

}  // namespace corvalen
