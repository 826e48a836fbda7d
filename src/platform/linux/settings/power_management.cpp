// SPDX-License-Identifier: MIT
#include "platform/settings/power_management.hpp"

#include <vector>

#include "corvalen/descriptor.hpp"
#include "platform/files/atomic_file.hpp"
#include "platform/linux/settings/power_supplies.hpp"
#include "platform/linux/settings/property_list_file.hpp"

namespace corvalen {
namespace {

constexpr const char* kProfilesFile = "power-profiles.plist";
constexpr const char* kPreferencesFile = "power-preferences.plist";
constexpr mode_t kStoreFolderMode = 0700;
constexpr mode_t kStoreFileMode = 0600;
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
        const Result<UniqueFd> store = openStoreFolder(_folders.store, kStoreFolderMode);
        if (!store) return std::nullopt;
        auto stored = readPropertyListFile(*store, file);
        if (!stored) return std::nullopt;
        for (const std::string_view source : sources()) {
            if (stored->find(source) == nullptr) stored->set(source, makeDefault(source));
        }
        return stored;
    }

    [[nodiscard]] Result<> write(const char* file, const Dictionary& dictionary) const {
        return openStoreFolder(_folders.store, kStoreFolderMode)
            .and_then([&](const UniqueFd& store) {
                return writePropertyListFile(store, file, dictionary, kStoreFileMode);
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
