// SPDX-License-Identifier: MIT
#include <gmock/gmock.h>

#include "operations/errors.hpp"
#include "operations/names.hpp"
#include "settings/settings_operations.hpp"

namespace corvalen {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// The power hardware: what it has, what it refuses, and what was written to it.
class FakePower final : public PowerManagement {
  public:
    Dictionary profiles{{"AC Power", 2}};
    Dictionary preferences{{"AC Power", Dictionary{{"Disk Sleep Timer", 10}, {"Dim", 1}}}};
    std::string provider = "AC Power";
    bool readable = true;
    std::int32_t profileStatus = 0;
    std::int32_t preferenceStatus = 0;
    int preferenceWrites = 0;

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
        preferenceWrites += 1;
        return preferenceStatus;
    }
    std::string providingPowerSourceType() override { return provider; }

    std::int64_t setting(std::string_view source, std::string_view name) {
        return preferences.find(source)->dictionary()->find(name)->number()->longLongValue();
    }
    std::int64_t profile(std::string_view source) {
        return profiles.find(source)->number()->longLongValue();
    }
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
    static void expectCannotSet(const ErrorRef& error, const std::string& status) {
        ASSERT_TRUE(error && error->domain() == kErrorDomain);
        EXPECT_EQ(error->code(), 10);
        EXPECT_THAT(*error->localizedRecoverySuggestion(),
                    testing::EndsWith("computer. The error code is " + status + "."));
    }

    FakePower* power = nullptr;
    std::vector<std::string> lines;

  private:
    SettingsServices services() {
        SettingsServices services = hostSettingsServices();
        auto fake = std::make_unique<FakePower>();
        power = fake.get();
        services.powerManagement = std::move(fake);
        return services;
    }
    SettingsOperations _operations;
};

TEST_F(PowerOperations, ChangesASettingOfTheSourcesThatTheMachineHas) {
    EXPECT_FALSE(modify("Disk Sleep Timer", 7));
    EXPECT_EQ(power->setting("AC Power", "Disk Sleep Timer"), 7);
    EXPECT_EQ(power->setting("AC Power", "Dim"), 1);
    EXPECT_EQ(power->profile("AC Power"), -1);
    EXPECT_EQ(power->profiles.size(), 1U);

    addBattery();
    EXPECT_FALSE(modify("Disk Sleep Timer", -3));
    EXPECT_EQ(power->setting("Battery Power", "Disk Sleep Timer"), -3);
    EXPECT_EQ(power->setting("AC Power", "Disk Sleep Timer"), -3);
    EXPECT_EQ(power->profile("Battery Power"), -1);
    EXPECT_THAT(lines, IsEmpty());
}

TEST_F(PowerOperations, RefusesASettingThatASourceDoesNotHave) {
    addBattery();
    // The battery comes first and fails: the mains are not even looked at.
    expectCannotSet(modify("Dim", 0), "0");
    EXPECT_THAT(
        lines, ElementsAre("The power source 'Battery Power' does not support the setting 'Dim'."));
    EXPECT_EQ(power->profile("Battery Power"), -1);
    EXPECT_EQ(power->profile("AC Power"), 2);
    EXPECT_EQ(power->preferenceWrites, 0);
    EXPECT_EQ(modify("", 0)->code(), 22);
}

TEST_F(PowerOperations, ReportsWhatTheServiceRefuses) {
    power->preferenceStatus = 13;
    expectCannotSet(modify("Dim", 0), "13");
    expectCannotSet(spinDown(1), "13");
    power->profileStatus = 28;
    expectCannotSet(modify("Dim", 0), "0");
    EXPECT_THAT(lines, ElementsAre("Could not set active power profile."));
    expectCannotSet(spinDown(1), "28");
    EXPECT_EQ(power->preferenceWrites, 2);
    power->readable = false;
    EXPECT_EQ(modify("Dim", 0)->code(), 9);
    EXPECT_EQ(spinDown(1)->code(), 9);
}

TEST_F(PowerOperations, SpinsDownTheDisksOfTheProvidingSourceOnly) {
    addBattery();
    power->provider = "Battery Power";
    EXPECT_FALSE(spinDown(0));
    EXPECT_EQ(power->setting("Battery Power", "Disk Sleep Timer"), 0);
    EXPECT_EQ(power->profile("Battery Power"), -1);
    EXPECT_EQ(power->setting("AC Power", "Disk Sleep Timer"), 10);
    EXPECT_EQ(power->profile("AC Power"), 2);

    // A source without settings: its profile is selected, and that is all.
    power->provider = "UPS Power";
    EXPECT_FALSE(spinDown(4));
    EXPECT_EQ(power->profile("UPS Power"), -1);
    EXPECT_EQ(power->preferenceWrites, 1);
}

}  // namespace
}  // namespace corvalen
