// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <linux/hdreg.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "corvalen/descriptor.hpp"
#include "platform/files/atomic_file.hpp"
#include "platform/files/object_address.hpp"
#include "platform/settings/settings.hpp"

namespace corvalen {
namespace {

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

/// Returns the device names of rotating ATA drives.
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

constexpr std::int64_t kStepsPerMinute = 12;
constexpr std::int64_t kMostShortMinutes = 20;
constexpr std::uint8_t kTwentyOneMinutes = 252;
constexpr std::int64_t kLongStepMinutes = 30;
constexpr std::int64_t kMostLongSteps = 11;
constexpr std::int64_t kBeforeLongSteps = 240;

class AtaStandby final : public DiskStandby {
  public:
    void setTimer(const std::string& drive, std::uint8_t ataTimer) override {
        const UniqueFd device(
            ::open(("/dev/" + drive).c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
        unsigned char command[4] = {WIN_SETIDLE1, ataTimer, 0, 0};
        if (device) ::ioctl(device.get(), HDIO_DRIVE_CMD, command);
    }
};

}  // namespace

std::uint8_t ataStandbyTimer(std::int64_t minutes) noexcept {
    if (minutes <= 0) return 0;
    if (minutes <= kMostShortMinutes) return static_cast<std::uint8_t>(minutes * kStepsPerMinute);
    if (minutes == kMostShortMinutes + 1) return kTwentyOneMinutes;
    const std::int64_t steps =
        minutes / kLongStepMinutes + static_cast<std::int64_t>(minutes % kLongStepMinutes != 0);
    return static_cast<std::uint8_t>(kBeforeLongSteps + std::min(steps, kMostLongSteps));
}

std::unique_ptr<DiskStandby> makeDiskStandby() {
    return std::make_unique<AtaStandby>();
}

namespace {

constexpr const char* kProfilesFile = "power-profiles.plist";
constexpr const char* kPreferencesFile = "power-preferences.plist";
constexpr std::int64_t kDefaultProfile = 0;

Value defaultSettings(std::string_view source) {
    const bool mains = source == kMainsPowerSource;
    return Dictionary{{std::string(kDiskSleepTimerSetting), 10},
                      {"Display Sleep Timer", mains ? 10 : 2},
                      {"System Sleep Timer", mains ? 0 : 10}};
}

class HostPowerManagement final : public PowerManagement {
  public:
    HostPowerManagement(PowerManagementFolders folders, std::unique_ptr<DiskStandby> diskStandby)
        : _folders(std::move(folders)), _diskStandby(std::move(diskStandby)) {}

    std::optional<Dictionary> copyActivePowerProfiles() override {
        return readWithSources(kProfilesFile,
                               [](std::string_view) { return Value(kDefaultProfile); });
    }
    Result<> setActivePowerProfiles(const Dictionary& profiles) override {
        return write(kProfilesFile, profiles);
    }
    std::optional<Dictionary> copyPMPreferences() override {
        return readWithSources(kPreferencesFile, defaultSettings);
    }
    Result<> setPMPreferences(const Dictionary& preferences) override {
        const Result<> written = write(kPreferencesFile, preferences);
        if (written) applyDiskSleepTimer(preferences);
        return written;
    }

    std::string providingPowerSourceType() override {
        const PowerSupplies supplies = readPowerSupplies(_folders.powerSupplies);
        std::string_view source = kMainsPowerSource;
        if (!supplies.mainsOnline) {
            if (supplies.batteryDischarging || (supplies.battery && supplies.mainsKnown)) {
                source = kBatteryPowerSource;
            } else if (supplies.uninterruptibleDischarging) {
                source = kUninterruptiblePowerSource;
            }
        }
        return std::string(source);
    }

  private:
    [[nodiscard]] std::vector<std::string_view> sources() const {
        const PowerSupplies supplies = readPowerSupplies(_folders.powerSupplies);
        std::vector<std::string_view> sources = {kMainsPowerSource};
        if (supplies.battery) sources.push_back(kBatteryPowerSource);
        if (supplies.uninterruptible) sources.push_back(kUninterruptiblePowerSource);
        return sources;
    }

    template <class MakeDefault>
    std::optional<Dictionary> readWithSources(const char* file, MakeDefault makeDefault) const {
        const Result<UniqueFd> store = openStoreFolder(_folders.store, kPrivateFolderMode);
        if (!store) return std::nullopt;
        auto stored = readPropertyListFile(*store, file);
        if (!stored) return std::nullopt;
        for (const std::string_view source : sources()) {
            if (stored->find(source) == nullptr) stored->set(source, makeDefault(source));
        }
        return stored;
    }

    [[nodiscard]] Result<> write(const char* file, const Dictionary& dictionary) const {
        return openStoreFolder(_folders.store, kPrivateFolderMode)
            .and_then([&](const UniqueFd& store) {
                return writePropertyListFile(store, file, dictionary, kPrivateFileMode);
            });
    }

    void applyDiskSleepTimer(const Dictionary& preferences) {
        const Value* settings = preferences.find(providingPowerSourceType());
        const Dictionary* dictionary = settings != nullptr ? settings->dictionary() : nullptr;
        const Value* timer =
            dictionary != nullptr ? dictionary->find(kDiskSleepTimerSetting) : nullptr;
        const Number* minutes = timer != nullptr ? timer->number() : nullptr;
        if (minutes == nullptr) return;
        const std::uint8_t ataTimer = ataStandbyTimer(minutes->longLongValue());
        for (const std::string& drive : rotatingAtaDrives(_folders.blockDevices))
            _diskStandby->setTimer(drive, ataTimer);
    }

    PowerManagementFolders _folders;
    std::unique_ptr<DiskStandby> _diskStandby;
};

}  // namespace

std::unique_ptr<PowerManagement> makePowerManagement(PowerManagementFolders folders,
                                                     std::unique_ptr<DiskStandby> diskStandby) {
    return std::make_unique<HostPowerManagement>(std::move(folders), std::move(diskStandby));
}

}  // namespace corvalen
