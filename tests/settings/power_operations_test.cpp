// SPDX-License-Identifier: MIT
#include <gmock/gmock.h>

#include "operations/names.hpp"
#include "settings/settings_operations.hpp"

namespace corvalen {
namespace {

using testing::ElementsAre;

/// The power hardware: what it has, what it refuses, and what was written to it.
struct FakePower final : PowerManagement {
    Dictionary profiles{{"AC Power", 2}};
    Dictionary preferences{{"AC Power", Dictionary{{"Disk Sleep Timer", 10}, {"Dim", 1}}}};
    std::string provider = "AC Power";
    bool readable = true;
    std::int32_t profileStatus = 0;
    std::int32_t preferenceStatus = 0;

    std::optional<Dictionary> copyActivePowerProfiles() override { return profiles; }
    std::int32_t setActivePowerProfiles(const Dictionary& changed) override {
        if (profileStatus == 0) profiles = changed;
        return profileStatus;
    }
    std::optional<Dictionary> copyPMPreferences() override {
        return readable ? std::optional(preferences) : std::nullopt;
    }
    std::int32_t setPMPreferences(const Dictionary& changed) override {
        if (preferenceStatus == 0) preferences = changed;
        return preferenceStatus;
    }
    std::string providingPowerSourceType() override { return provider; }
};

class PowerOperations : public testing::Test {
  protected:
    PowerOperations() : _operations(services(), [this](auto line) { lines.emplace_back(line); }) {}

    void addBattery() {
        power->profiles.set("Battery Power", 3);
        power->preferences.set("Battery Power", Dictionary{{"Disk Sleep Timer", 5}});
    }
    ErrorRef modify(const char* name, int value) {
        return _operations.performOperationModifyPowersettingWithArguments({name, value});
    }
    ErrorRef spinDown(int minutes) {
        return _operations.performOperationModifyDiskspindownWithArguments({minutes});
    }
    void expectCannotSet(const ErrorRef& error, const std::string& status) {
        ASSERT_TRUE(error && error->domain() == kErrorDomain && error->code() == 10);
        EXPECT_THAT(*error->localizedRecoverySuggestion(),
                    testing::EndsWith("computer. The error code is " + status + "."));
    }
    void expectProfiles(int mains, int battery) {
        EXPECT_TRUE(power->profiles ==
                    (Dictionary{{"AC Power", mains}, {"Battery Power", battery}}));
    }
    void expectPreferences(int mains, int battery) {
        EXPECT_TRUE(power->preferences ==
                    (Dictionary{{"AC Power", Dictionary{{"Disk Sleep Timer", mains}, {"Dim", 1}}},
                                {"Battery Power", Dictionary{{"Disk Sleep Timer", battery}}}}));
    }

    FakePower* power = nullptr;
    std::vector<std::string> lines;

  private:
    SettingsServices services() {
        SettingsServices services = hostSettingsServices();
        services.powerManagement.reset(power = new FakePower);
        return services;
    }
    SettingsOperations _operations;
};

TEST_F(PowerOperations, ChangeASettingOfTheSourcesThatTheMachineHas) {
    EXPECT_FALSE(modify("Dim", 7));
    EXPECT_FALSE(modify("Dim", 1));
    EXPECT_TRUE(power->profiles == (Dictionary{{"AC Power", -1}}));
    addBattery();
    EXPECT_FALSE(modify("Disk Sleep Timer", -3));
    expectPreferences(-3, -3);
    expectProfiles(-1, -1);
    EXPECT_THAT(lines, ElementsAre());
}

TEST_F(PowerOperations, ReportWhatCannotBeDone) {
    addBattery();
    // The battery comes first and has no such setting: the mains are not even looked at.
    expectCannotSet(modify("Dim", 0), "0");
    EXPECT_THAT(
        lines, ElementsAre("The power source 'Battery Power' does not support the setting 'Dim'."));
    expectProfiles(2, -1);
    power->preferenceStatus = 13;
    expectCannotSet(modify("Disk Sleep Timer", 0), "13");
    expectCannotSet(spinDown(1), "13");
    power->profileStatus = 28;
    expectCannotSet(modify("Disk Sleep Timer", 0), "0");
    EXPECT_EQ(lines.back(), "Could not set active power profile.");
    expectCannotSet(spinDown(1), "28");
    expectPreferences(10, 5);
    power->readable = false;
    EXPECT_EQ(modify("Dim", 0)->code(), 9);
    EXPECT_EQ(spinDown(1)->code(), 9);
    EXPECT_EQ(modify("", 0)->code(), 22);
}

TEST_F(PowerOperations, SpinDownTheDisksOfTheProvidingSourceOnly) {
    addBattery();
    power->provider = "Battery Power";
    EXPECT_FALSE(spinDown(0));
    expectPreferences(10, 0);
    expectProfiles(2, -1);
    // A source without settings: its profile is selected, and that is all.
    power->provider = "UPS Power";
    EXPECT_FALSE(spinDown(4));
    expectPreferences(10, 0);
    EXPECT_EQ(power->profiles.size(), 3U);
}

}  // namespace
}  // namespace corvalen
