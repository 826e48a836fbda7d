// SPDX-License-Identifier: MIT
#include "cli/progress.hpp"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "cli/text.hpp"

namespace corvalen::cli {
namespace {

constexpr std::chrono::milliseconds kDrawInterval{100};
/// After this time without feedback the line says what the command waits for.
constexpr std::chrono::seconds kWaitNoticeDelay{2};
constexpr std::size_t kBarWidth = 24;
constexpr std::size_t kDefaultColumns = 80;

std::size_t terminalColumns() {
    winsize size{};
    const bool known = ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : kDefaultColumns;
}

void writeToTerminal(std::string_view text) {
    // A progress line may be lost.
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
}

std::string barText(double fraction) {
    const double share = std::clamp(std::isfinite(fraction) ? fraction : 0.0, 0.0, 1.0);
    const auto filled = static_cast<std::size_t>(share * static_cast<double>(kBarWidth));
    return fmt::format("[{}{}] {:3.0f}%  ", std::string(filled, '#'),
                       std::string(kBarWidth - filled, '-'), std::floor(share * 100));
}

}  // namespace

bool canShowProgress() {
    const char* term = std::getenv("TERM");
    const bool dumb = term == nullptr || std::string_view(term) == "dumb";
    return !dumb && ::isatty(STDERR_FILENO) == 1;
}

std::string progressLine(const ProgressState& state, std::size_t width) {
    std::string line;
    if (state.fraction > 0) line += barText(state.fraction);
    if (state.count > 0) {
        line += fmt::format("{} objects", state.count);
        if (state.seconds >= 1)
            line += fmt::format(" ({:.0f}/s)", static_cast<double>(state.count) / state.seconds);
        line += "  ";
    }
    line += fmt::format("{:.0f} s", std::floor(state.seconds));
    if (!state.activity.empty()) line += "  " + escapedForTerminal(state.activity);
    std::size_t end = std::min(line.size(), width);
    // Do not cut a UTF-8 character.
    while (end < line.size() && end > 0 && (static_cast<unsigned char>(line[end]) & 0xC0U) == 0x80U)
        --end;
    return line.substr(0, end);
}

ProgressDisplay::ProgressDisplay(bool wanted) : _enabled(wanted && canShowProgress()) {}

ProgressDisplay::~ProgressDisplay() {
    clearLine();
}

void ProgressDisplay::begin() {
    const std::lock_guard lock(_mutex);
    if (std::exchange(_begun, true)) return;
    _start = Clock::now();
    if (std::exchange(_isWaiting, false)) _state.activity.clear();
}

void ProgressDisplay::showWaiting(std::string_view activity) {
    const std::lock_guard lock(_mutex);
    if (_begun) return;
    _isWaiting = true;
    _start = Clock::now();
    _state.activity = activity;
}

void ProgressDisplay::setActivity(std::string activity) {
    const std::lock_guard lock(_mutex);
    _state.activity.swap(activity);
}

void ProgressDisplay::setFraction(double fraction) {
    const std::lock_guard lock(_mutex);
    _state.fraction = fraction;
}

void ProgressDisplay::setCount(std::uint64_t count) {
    const std::lock_guard lock(_mutex);
    _state.count = count;
}

void ProgressDisplay::tick() {
    if (!_enabled) return;
    const std::lock_guard lock(_mutex);
    const auto now = Clock::now();
    if (!_begun && !(_isWaiting && now - _start >= kWaitNoticeDelay)) return;
    if (_lineShown && now - _drawn < kDrawInterval) return;
    _drawn = now;
    _lineShown = true;
    _state.seconds = std::chrono::duration<double>(now - _start).count();
    // The last column stays free: some terminals wrap when it is written.
    writeToTerminal("\r\033[K" + progressLine(_state, terminalColumns() - 1));
}

std::unique_lock<std::mutex> ProgressDisplay::hold() {
    std::unique_lock lock(_mutex);
    clearLine();
    return lock;
}

void ProgressDisplay::clearLine() {
    if (_lineShown) writeToTerminal("\r\033[K");
    _lineShown = false;
}

}  // namespace corvalen::cli
