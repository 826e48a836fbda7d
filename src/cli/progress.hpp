// SPDX-License-Identifier: MIT
// A line on standard error that shows how far an operation has come.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

namespace corvalen::cli {

/// What the line says.
struct ProgressState {
    /// 0 to 1; the helper's estimate can pass 1.
    double fraction = 0;
    /// Objects found or handled so far.
    std::uint64_t count = 0;
    double seconds = 0;
    /// What the operation is at; shown escaped.
    std::string activity = {};
};

/// One line of `width` columns at most: a bar when the operation estimates a fraction, the count
/// with its rate when there is one, the time, and what the operation is at.
[[nodiscard]] std::string progressLine(const ProgressState& state, std::size_t width);

/// Draws only on a terminal, and at most ten times a second. Any thread may call.
class ProgressDisplay {
  public:
    /// Nothing is ever drawn when `wanted` is false or standard error is no terminal.
    explicit ProgressDisplay(bool wanted);
    /// Clears the line.
    ~ProgressDisplay();
    ProgressDisplay(const ProgressDisplay&) = delete;
    ProgressDisplay& operator=(const ProgressDisplay&) = delete;

    [[nodiscard]] bool isEnabled() const noexcept { return _enabled; }
    /// From the first call on the line is shown and the time counts: before the operation begins,
    /// the user may be asked for a password on the same terminal.
    void begin();
    /// Until `begin`, says from now on what is waited for, when that takes long.
    void showWaiting(std::string_view activity);
    void setActivity(std::string activity);
    void setFraction(double fraction);
    void setCount(std::uint64_t count);
    /// Draws when the line is due.
    void tick();

    /// Clears the line and keeps it away as long as the result lives, for output on the same
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
    bool _waits = false;
    bool _lineShown = false;
};

}  // namespace corvalen::cli
