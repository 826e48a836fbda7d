// SPDX-License-Identifier: MIT
#include "platform/power_management.hpp"

#include <gmock/gmock.h>

#include "settings/scratch_folder.hpp"

namespace corvalen {
namespace {

class RecordingStandby final : public DiskStandby {
  public:
    explicit RecordingStandby(std::vector<std::string>* timers) : _timers(timers) {}
    void setTimer(const std::string& drive, std::uint8_t ataTimer) override {
        _timers->push_back(drive + '=' + std::to_string(ataTimer));
    }

  private:
    std::vector<std::string>* _timers;
};

struct Supply {
    const char *type, *online, *status, *scope;
};

/// A machine made of files.
struct Machine {
    ScratchFolder folder;
    std::vector<std::string> timers;
    std::unique_ptr<PowerManagement> power =
        makePowerManagement({folder / "store", folder / "supplies", folder / "block"},
                            std::make_unique<RecordingStandby>(&timers));

    void add(const Supply& supply) {
        const std::string path = folder / ("supplies/" + std::to_string(++_count));
        writeText(path + "/type", std::string(supply.type) + '\n');
        writeText(path + "/online", supply.online);
        writeText(path + "/status", supply.status);
        writeText(path + "/scope", supply.scope);
    }
    void addDrive(const std::string& name, const char* rotational, const char* vendor) {
        writeText(folder / ("block/" + name + "/queue/rotational"), rotational);
        writeText(folder / ("block/" + name + "/device/vendor"), vendor);
    }

  private:
    int _count = 0;
};

TEST(PowerManagement, TheProvidingSourceFollowsThePowerSupplies) {
    const Supply battery{"Battery", "", "Not charging\n", ""};
    const Supply draining{"Battery", "", "Discharging\n", ""};
    const Supply unplugged{"Mains", "0\n", "", ""};
    const Supply plugged{"USB", "1\n", "", ""};
    const Supply mouse{"Battery", "", "Discharging\n", "Device\n"};
    const Supply reserve{"UPS", "", "Discharging\n", ""};
    const std::pair<std::vector<Supply>, const char*> kMachines[] = {
        {{}, "AC Power"},
        {{unplugged}, "AC Power"},
        {{battery}, "AC Power"},
        {{draining}, "Battery Power"},
        {{battery, unplugged}, "Battery Power"},
        {{draining, unplugged, plugged}, "AC Power"},
        {{mouse}, "AC Power"},
        {{mouse, unplugged}, "AC Power"},
        {{reserve, unplugged}, "UPS Power"},
    };
    for (const auto& [supplies, source] : kMachines) {
        Machine machine;
        for (const Supply& supply : supplies)
            machine.add(supply);
        EXPECT_EQ(machine.power->providingPowerSourceType(), source)
            << &supplies - &kMachines[0].first;
    }
}

TEST(PowerManagement, StoresWhatIsSetAndAddsNewSources) {
    Machine machine;
    auto preferences = machine.power->copyPMPreferences();
    ASSERT_TRUE(preferences);
    ASSERT_EQ(preferences->size(), 1U);
    preferences->find("AC Power")->dictionary()->set(kDiskSleepTimerSetting, 25);
    machine.addDrive("sda", "1\n", "ATA     \n");
    machine.addDrive("sdb", "0\n", "ATA     \n");
    machine.addDrive("sdc", "1\n", "USBDISK \n");
    machine.addDrive("loop0", "1\n", "");
    EXPECT_EQ(machine.power->setPMPreferences(*preferences), 0);
    EXPECT_THAT(machine.timers, testing::ElementsAre("sda=241"));
    EXPECT_EQ(machine.power->setActivePowerProfiles(Dictionary{{"AC Power", -1}}), 0);
    EXPECT_EQ(readWithOracle(machine.folder / "store/power-profiles.plist"), "{'AC Power': -1}");
    EXPECT_EQ(attributesOf(machine.folder / "store").st_mode, S_IFDIR | 0700U);

    machine.add({"Battery", "", "", ""});
    preferences = machine.power->copyPMPreferences();
    ASSERT_TRUE(preferences && preferences->find("Battery Power"));
    EXPECT_EQ(*preferences->find("AC Power")->dictionary()->find(kDiskSleepTimerSetting),
              Value(25));
    const auto profiles = machine.power->copyActivePowerProfiles();
    EXPECT_TRUE(*profiles == (Dictionary{{"AC Power", -1}, {"Battery Power", 0}}));

    writeText(machine.folder / "store/power-profiles.plist", "not a list {");
    EXPECT_FALSE(machine.power->copyActivePowerProfiles());
}

TEST(PowerManagement, EncodesMinutesForTheDrives) {
    const std::pair<std::int64_t, int> kTimers[] = {
        {-1, 0},   {0, 0},    {1, 12},   {20, 240},  {21, 252},  {22, 241},
        {30, 241}, {31, 242}, {60, 242}, {330, 251}, {331, 251}, {INT64_MAX, 251}};
    for (const auto& [minutes, timer] : kTimers)
        EXPECT_EQ(ataStandbyTimer(minutes), timer) << minutes;
}

}  // namespace
}  // namespace corvalen
