// SPDX-License-Identifier: MIT
#include "platform/linux/settings/power_supplies.hpp"

#include <filesystem>
#include <fstream>

namespace corvalen {
namespace {

/// Returns the attribute without trailing blanks; empty if it does not exist.
std::string attribute(const std::filesystem::path& folder, const char* name) {
    std::ifstream file(folder / name);
    std::string line;
    std::getline(file, line);
    line.erase(line.find_last_not_of(" \n") + 1);
    return line;
}

template <class Visit>
void forEachEntry(const std::string& folder, Visit visit) {
    std::error_code error;
    std::filesystem::directory_iterator entry(folder, error);
    const std::filesystem::directory_iterator end;
    for (; !error && entry != end; entry.increment(error))
        visit(entry->path());
}

}  // namespace

PowerSupplies readPowerSupplies(const std::string& folder) {
    PowerSupplies supplies;
    forEachEntry(folder, [&supplies](const std::filesystem::path& supply) {
        if (attribute(supply, "scope") == "Device") return;
        const std::string type = attribute(supply, "type");
        const bool discharging = attribute(supply, "status") == "Discharging";
        if (type == "Battery") {
            supplies.battery = true;
            supplies.batteryDischarging |= discharging;
        } else if (type == "UPS") {
            supplies.uninterruptible = true;
            supplies.uninterruptibleDischarging |= discharging;
        } else if (type == "Mains" || type == "Wireless" || type.starts_with("USB")) {
            // 2 is a supply with programmable voltage; only 0 means offline.
            const std::string online = attribute(supply, "online");
            supplies.mainsKnown = true;
            supplies.mainsOnline |= !online.empty() && online != "0";
        }
    });
    return supplies;
}

std::vector<std::string> rotatingAtaDrives(const std::string& blockDeviceFolder) {
    std::vector<std::string> drives;
    forEachEntry(blockDeviceFolder, [&drives](const std::filesystem::path& device) {
        // libata gives every drive the vendor "ATA".
        if (attribute(device, "queue/rotational") == "1" &&
            attribute(device, "device/vendor") == "ATA") {
            drives.push_back(device.filename());
        }
    });
    return drives;
}

}  // namespace corvalen
