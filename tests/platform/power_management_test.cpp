// SPDX-License-Identifier: MIT
#include "platform/power_management.hpp"

#include <gmock/gmock.h>

#include <sstream>

#include "settings/scratch_folder.hpp"

namespace corvalen {
namespace {

struct RecordingStandby final : DiskStandby {
    explicit RecordingStandby(std::vector<std::string>* set) : timers(set) {}
    void setTimer(const std::string& drive, std::uint8_t ataTimer) override {
        timers->push_back(drive + '=' + std::to_string(ataTimer));
    }
    std::vector<std::string>* timers;
};

/// A machine made of files.
struct Machine {
    ScratchFolder folder;
    std::vector<std::string> timers;
    std::unique_ptr<PowerManagement> power =
        makePowerManagement({folder / "store", folder / "supplies", folder / "block"},
                            std::make_unique<RecordingStandby>(&timers));

    /// Type, online, status and scope, a dash for none.
    void addSupply(const std::string& description) {
        std::istringstream words(description);
        const std::string supply = folder / ("supplies/" + description);
        for (const char* name : {"/type", "/online", "/status", "/scope"}) {
            std::string word;
            if (words >> word && word != "-") writeText(supply + name, word + '\n');
        }
    }
    void addDrive(const std::string& name, const char* rotational, const char* vendor) {
        writeText(folder / ("block/" + name + "/queue/rotational"), rotational);
        writeText(folder / ("block/" + name + "/device/vendor"), vendor);
    }
};

TEST(PowerManagement, TheProvidingSourceFollowsThePowerSupplies) {
    const std::string battery = "Battery - Full";
    const std::string draining = "Battery - Discharging";
    const std::string mouse = "Battery - Discharging Device";
    const std::string unplugged = "Mains 0";
    const std::pair<std::vector<std::string>, const char*> kMachines[] = {
        {{}, "AC Power"},
        {{unplugged}, "AC Power"},
        {{battery}, "AC Power"},
        {{draining}, "Battery Power"},
        {{battery, unplugged}, "Battery Power"},
        {{draining, unplugged, "USB 1"}, "AC Power"},
        {{mouse, unplugged}, "AC Power"},
        {{"UPS - Discharging", unplugged}, "UPS Power"},
    };
    for (const auto& [supplies, source] : kMachines) {
        Machine machine;
        for (const std::string& supply : supplies)
            machine.addSupply(supply);
        EXPECT_EQ(machine.power->providingPowerSourceType(), source)
            << testing::PrintToString(supplies);
    }
}

TEST(PowerManagement, StoresWhatIsSetAndAddsNewSources) {
    Machine machine;
    auto preferences = machine.power->copyPMPreferences();
    ASSERT_TRUE(preferences && preferences->size() == 1);
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

    machine.addSupply("Battery");
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
