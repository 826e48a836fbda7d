// SPDX-License-Identifier: MIT
// Power management: settings and profiles by power source, and the source in use.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "corvalen/value.hpp"

namespace corvalen {

inline constexpr std::string_view kMainsPowerSource = "AC Power";
inline constexpr std::string_view kBatteryPowerSource = "Battery Power";
inline constexpr std::string_view kUninterruptiblePowerSource = "UPS Power";
inline constexpr std::string_view kDiskSleepTimerSetting = "Disk Sleep Timer";  // minutes
/// The number of the profile that consists of the settings themselves.
inline constexpr std::int64_t kCustomPowerProfile = -1;

/// A status is 0 or a POSIX code. Any thread may call; who reads, changes and writes must keep
/// others from doing the same.
class PowerManagement {
  public:
    virtual ~PowerManagement() = default;

    /// The number of the profile in force, by power source; nothing when it cannot be read.
    [[nodiscard]] virtual std::optional<Dictionary> copyActivePowerProfiles() = 0;
    [[nodiscard]] virtual std::int32_t setActivePowerProfiles(const Dictionary& profiles) = 0;
    /// Dictionaries of settings, by power source; nothing when they cannot be read.
    [[nodiscard]] virtual std::optional<Dictionary> copyPMPreferences() = 0;
    [[nodiscard]] virtual std::int32_t setPMPreferences(const Dictionary& preferences) = 0;
    /// The source that supplies the machine; "AC Power" when that is unknown.
    [[nodiscard]] virtual std::string providingPowerSourceType() = 0;
};

/// The standby timers of drives.
class DiskStandby {
  public:
    virtual ~DiskStandby() = default;
    /// Sets the timer of the drive with this device name, as ATA encodes it.
    virtual void setTimer(const std::string& drive, std::uint8_t ataTimer) = 0;
};

/// Drives below /dev, with the ATA command "idle" (linux/hdreg.h, HDIO_DRIVE_CMD). A drive that
/// refuses is left alone.
[[nodiscard]] std::unique_ptr<DiskStandby> makeDiskStandby();

/// Minutes in the encoding of ATA: 0 for never, then steps of 5 seconds to 20 minutes, 21 minutes,
/// and steps of 30 minutes to five and a half hours. Rounds up, and holds at the ends.
[[nodiscard]] std::uint8_t ataStandbyTimer(std::int64_t minutes) noexcept;

/// Where the host shows and keeps what power management needs.
struct PowerManagementFolders {
    std::string store;
    std::string powerSupplies = "/sys/class/power_supply";
    std::string blockDevices = "/sys/block";
};

/// Profiles and settings in two property lists of the store folder, with the sources of the host
/// added where they are missing. Of the settings in force, those that Linux can follow are applied
/// when they are written: the disk sleep timer of the providing source, to rotating ATA drives.
[[nodiscard]] std::unique_ptr<PowerManagement> makePowerManagement(
    PowerManagementFolders folders, std::unique_ptr<DiskStandby> diskStandby = makeDiskStandby());

}  // namespace corvalen
