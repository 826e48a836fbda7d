// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <linux/hdreg.h>
#include <sys/ioctl.h>

#include <algorithm>

#include "corvalen/descriptor.hpp"
#include "platform/settings/power_management.hpp"

namespace corvalen {
namespace {

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

}  // namespace corvalen
