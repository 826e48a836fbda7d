// SPDX-License-Identifier: MIT
#include <gmock/gmock.h>

#include <sstream>

#include "settings/settings_files.hpp"

namespace corvalen {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;

struct RecordingStandby final : DiskStandby {
    explicit RecordingStandby(std::vector<std::string>* set) : timers(set) {}
    void setTimer(const std::string& drive, std::uint8_t ataTimer) override {
        timers->push_back(drive + '=' + std::to_string(ataTimer));
    }
    std::vector<std::string>* timers;
};

/// A machine whose hardware is made of files.
struct PowerOperations : SettingsTest {
    std::vector<std::string> timers;
    std::vector<std::string> lines;
    PowerManagement* power = nullptr;
    std::unique_ptr<SettingsOperations> operations;
    const std::string profilesFile = at("store/power-profiles.plist");
    const std::string preferencesFile = at("store/power-preferences.plist");

    PowerOperations() {
        SettingsServices services = hostSettingsServices();
        services.powerManagement = makePowerManagement({at("store"), at("supplies"), at("block")},
                                                       std::make_unique<RecordingStandby>(&timers));
        power = services.powerManagement.get();
        operations = std::make_unique<SettingsOperations>(
            std::move(services), [this](auto line) { lines.emplace_back(line); });
    }
    /// Type, online, status and scope, a dash for none.
    void addSupply(const std::string& description) {
        std::istringstream words(description);
        const std::string supply = at("supplies/" + description);
        for (const char* name : {"/type", "/online", "/status", "/scope"}) {
            std::string word;
            if (words >> word && word != "-") test::putFile(supply + name, word + '\n');
        }
    }
    ErrorRef modify(const char* name, int value) {
        return operations->performOperationModifyPowersettingWithArguments({name, value});
    }
    ErrorRef spinDown(int minutes) {
        return operations->performOperationModifyDiskspindownWithArguments({minutes});
    }
    static void expectCannotSet(const ErrorRef& error, const char* status) {
        ASSERT_EQ(codeOf(error), -10);
        EXPECT_THAT(*error->localizedRecoverySuggestion(),
                    EndsWith("The error code is " + std::string(status) + "."));
    }
};

TEST_F(PowerOperations, ChangeASettingOfTheSourcesThatTheMachineHas) {
    EXPECT_FALSE(modify("Disk Sleep Timer", 25));
    EXPECT_EQ(readWithOracle(profilesFile), "{'AC Power': -1}");
    // A battery that is added later gets its own settings.
    addSupply("Battery");
    EXPECT_FALSE(modify("System Sleep Timer", -3));
    EXPECT_EQ(readWithOracle(profilesFile), "{'AC Power': -1, 'Battery Power': -1}");
    EXPECT_EQ(readWithOracle(preferencesFile),
              "{'AC Power': {'Disk Sleep Timer': 25, 'Display Sleep Timer': 10, "
              "'System Sleep Timer': -3}, 'Battery Power': {'Disk Sleep Timer': 10, "
              "'Display Sleep Timer': 2, 'System Sleep Timer': -3}}");
}

TEST_F(PowerOperations, SpinDownTheDisksOfTheProvidingSourceOnly) {
    addSupply("Battery - Discharging");
    for (const std::string drive : {"sda 1 'ATA     '", "sdb 0 'ATA     '", "sdc 1 'USBDISK '"})
        ASSERT_TRUE(
            inside("set " + drive +
                   "; mkdir -p block/$1/queue block/$1/device && "
                   "echo $2 >block/$1/queue/rotational && echo \"$3\" >block/$1/device/vendor"));
    EXPECT_FALSE(spinDown(0));
    EXPECT_FALSE(spinDown(60));
    EXPECT_THAT(timers, ElementsAre("sda=0", "sda=242"));
    EXPECT_EQ(readWithOracle(profilesFile), "{'AC Power': 0, 'Battery Power': -1}");
    EXPECT_THAT(readWithOracle(preferencesFile),
                ::testing::AllOf(::testing::HasSubstr("'AC Power': {'Disk Sleep Timer': 10"),
                                 ::testing::HasSubstr("'Battery Power': {'Disk Sleep Timer': 60")));
}

TEST_F(PowerOperations, ReportWhatCannotBeDone) {
    addSupply("Battery");
    // The battery comes first and lacks the setting, so the mains are not read.
    const Dictionary mains{{"Dim", 1}, {"Disk Sleep Timer", 1}};
    ASSERT_TRUE(power->setPMPreferences(Dictionary{{"AC Power", mains}}));
    expectCannotSet(modify("Dim", 0), "0");
    EXPECT_THAT(
        lines, ElementsAre("The power source 'Battery Power' does not support the setting 'Dim'."));
    EXPECT_EQ(readWithOracle(profilesFile), "{'AC Power': 0, 'Battery Power': -1}");
    EXPECT_EQ(modify("", 0)->code(), 22);
    // Readable files that cannot be replaced.
    for (const std::string& file : {preferencesFile, profilesFile}) {
        if (!chattr("+i", file)) GTEST_SKIP() << "no inode flags";
        expectCannotSet(modify("Disk Sleep Timer", 7), file == profilesFile ? "0" : "1");
        expectCannotSet(spinDown(7), "1");
        EXPECT_TRUE(chattr("-i", file));
    }
    EXPECT_EQ(lines.back(), "Could not set active power profile.");
    test::putFile(preferencesFile, "{ broken");
    EXPECT_EQ(codeOf(modify("Dim", 0)), -9);
    EXPECT_EQ(codeOf(spinDown(1)), -9);
    EXPECT_EQ(textOf(preferencesFile), "{ broken");
}

TEST_F(PowerOperations, TheProvidingSourceFollowsThePowerSupplies) {
    const std::pair<std::vector<const char*>, const char*> kMachines[] = {
        {{}, "AC Power"},
        {{"Mains 0"}, "AC Power"},
        {{"Battery - Full"}, "AC Power"},
        {{"Battery - Discharging"}, "Battery Power"},
        {{"Battery - Full", "Mains 0"}, "Battery Power"},
        {{"Battery - Discharging", "Mains 0", "USB 1"}, "AC Power"},
        {{"Battery - Discharging Device", "Mains 0"}, "AC Power"},
        {{"UPS - Discharging", "Mains 0"}, "UPS Power"}};
    for (const auto& [supplies, source] : kMachines) {
        std::filesystem::remove_all(at("supplies"));
        for (const char* supply : supplies)
            addSupply(supply);
        EXPECT_EQ(power->providingPowerSourceType(), source) << ::testing::PrintToString(supplies);
    }
}

TEST(DiskStandby, EncodesMinutesForTheDrives) {
    const std::pair<std::int64_t, int> kTimers[] = {
        {-1, 0},   {0, 0},    {1, 12},   {20, 240},  {21, 252},
        {22, 241}, {30, 241}, {31, 242}, {330, 251}, {INT64_MAX, 251}};
    for (const auto& [minutes, timer] : kTimers)
        EXPECT_EQ(ataStandbyTimer(minutes), timer) << minutes;
}

}  // namespace
}  // namespace corvalen
