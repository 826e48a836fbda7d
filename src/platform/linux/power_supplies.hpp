// SPDX-License-Identifier: MIT
// What sysfs tells of power supplies and drives.
#pragma once

#include <string>
#include <vector>

namespace corvalen {

/// The power sources of the machine by their kind (Documentation/ABI/testing/sysfs-class-power).
/// Batteries of mice and the like do not count.
struct PowerSupplies {
    bool mainsKnown = false;
    bool mainsOnline = false;
    bool battery = false;
    bool batteryDischarging = false;
    bool uninterruptible = false;
    bool uninterruptibleDischarging = false;
};
[[nodiscard]] PowerSupplies readPowerSupplies(const std::string& folder);

/// Device names of the drives that rotate and speak ATA.
[[nodiscard]] std::vector<std::string> rotatingAtaDrives(const std::string& blockDeviceFolder);

}  // namespace corvalen
