// SPDX-License-Identifier: MIT
// The progress line on standard error.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

namespace corvalen::cli {

/// The contents of the line.
struct ProgressState {
    /// 0 to 1; an estimate of the daemon can exceed 1.
    double fraction = 0;
    /// Objects found or handled so far.
    std::uint64_t count = 0;
    double seconds = 0;
    /// The object in work, or what the command waits for. Not escaped.
    std::string activity = {};
};

/// Formats one line of at most `width` bytes: a bar for a fraction above 0, the count with its
/// rate, the time, and the activity, escaped.
[[nodiscard]] std::string progressLine(const ProgressState& state, std::size_t width);

/// Whether standard error is a terminal that can draw the line.
[[nodiscard]] bool canShowProgress();

/// Draws the line at most ten times a second. Any thread may call.
class ProgressDisplay {
  public:
    /// Never draws if `wanted` or canShowProgress() is false.
    explicit ProgressDisplay(bool wanted);
    /// Clears the line.
    ~ProgressDisplay();
    ProgressDisplay(const ProgressDisplay&) = delete;
    ProgressDisplay& operator=(const ProgressDisplay&) = delete;

    [[nodiscard]] bool isEnabled() const noexcept { return _enabled; }
    /// The first call starts the time and lets `tick` draw. Before it, a password prompt may be on
    /// the same terminal.
    void begin();
    /// Until `begin`, lets `tick` draw the activity after two seconds.
    void showWaiting(std::string_view activity);
    void setActivity(std::string activity);
    void setFraction(double fraction);
    void setCount(std::uint64_t count);
    /// Draws the line if it is due.
    void tick();

    /// Clears the line and prevents drawing while the result exists, for other output on the same
    /// terminal.
    [[nodiscard]] std::unique_lock<std::mutex> hold();

  private:
    using Clock = std::chrono::steady_clock;
    void clearLine();

    const bool _enabled;
    std::mutex _mutex;
    ProgressState _state;
    Clock::time_point _start;
    Clock::time_point _drawn;
    bool _begun = false;
    bool _isWaiting = false;
    bool _lineShown = false;
};

}  // namespace corvalen::cli
