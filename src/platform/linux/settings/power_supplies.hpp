// SPDX-License-Identifier: MIT
// Power supplies and drives in sysfs.
#pragma once

#include <string>
#include <vector>

namespace corvalen {

/// The power sources of the machine by kind (Documentation/ABI/testing/sysfs-class-power).
/// Batteries of peripherals do not count.
struct PowerSupplies {
    bool mainsKnown = false;
    bool mainsOnline = false;
    bool battery = false;
    bool batteryDischarging = false;
    bool uninterruptible = false;
    bool uninterruptibleDischarging = false;
};
[[nodiscard]] PowerSupplies readPowerSupplies(const std::string& folder);

/// Returns the device names of rotating ATA drives.
[[nodiscard]] std::vector<std::string> rotatingAtaDrives(const std::string& blockDeviceFolder);

}  // namespace corvalen
