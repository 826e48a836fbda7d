// SPDX-License-Identifier: MIT
#include <sstream>
#include <utility>

#include "settings/settings_files.hpp"

namespace corvalen {
namespace {

struct RecordingStandby final : DiskStandby {
    explicit RecordingStandby(std::string* set) : timers(set) {}
    void setTimer(const std::string& drive, std::uint8_t ataTimer) override {
        timers->append(drive + '=' + std::to_string(ataTimer) + '\n');
    }
    std::string* timers;
};

/// A machine whose hardware is made of files.
struct PowerOperations : SettingsTest {
    PowerOperations() {
        SettingsServices services = hostSettingsServices();
        services.powerManagement = makePowerManagement({at("store"), at("supplies"), at("block")},
                                                       std::make_unique<RecordingStandby>(&timers));
        power = services.powerManagement.get();
        operations = std::make_unique<SettingsOperations>(
            std::move(services), [this](auto line) { (log += line) += '\n'; });
        operations->registerMethods(table);
    }

    std::string timers;
    std::string log;
    PowerManagement* power = nullptr;
    std::unique_ptr<SettingsOperations> operations;
};

// "timers" shows the timers that were sent to drives, and "log" the lines of the log.
TEST_F(PowerOperations, ChangeTheSourcesThatTheMachineHas) {
    if (!test::enterOwnMounts({})) GTEST_SKIP() << "no private mount namespace";
    auto all = steps();
    all["timers"] = [this](const auto&) { return std::exchange(timers, {}); };
    all["log"] = [this](const auto&) { return std::exchange(log, {}); };
    test::expectSteps("power_machine.txt", _top, all);
}

TEST_F(PowerOperations, TheProvidingSourceFollowsThePowerSupplies) {
    const auto source = [this](const std::string& supplies) {
        std::filesystem::remove_all(at("supplies"));
        for (const std::string& supply : test::fieldsOf(supplies, ',')) {
            std::istringstream words(supply);
            for (const char* name : {"/type", "/online", "/status", "/scope"})
                if (std::string word; words >> word && word != "-")
                    test::putFile(at("supplies/" + supply + name), word + '\n');
        }
        return power->providingPowerSourceType();
    };
    const auto timer = [](const std::string& minutes) {
        return std::to_string(ataStandbyTimer(std::stoll(minutes)));
    };
    test::expectRows("power.txt", {{"source", source}, {"timer", timer}});
}

}  // namespace
}  // namespace corvalen
