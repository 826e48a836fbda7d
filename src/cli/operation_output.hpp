// SPDX-License-Identifier: MIT
// What a running operation shows: the objects that it finds, and its progress line.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

#include "cli/command.hpp"
#include "cli/output.hpp"
#include "corvalen/value.hpp"

namespace corvalen::cli {

enum class ObjectForm : std::uint8_t { table, plain, nullTerminated, json };

/// Returns the form that the options select. Throws UsageError for more than one.
[[nodiscard]] ObjectForm chooseObjectForm(const Arguments& arguments, bool isTerminal);

/// Formats one record as a line; empty for a record without a path. For a terminal, characters that
/// could act on it are escaped, except in the null-terminated form.
[[nodiscard]] std::string formatObject(const Dictionary& record, ObjectForm form, bool isTerminal,
                                       bool exactSizes);

/// The number and the order of the objects that are written.
struct ObjectSelection {
    enum class Key : std::uint8_t { none, path, size, modified };
    Key key = Key::none;
    bool isReversed = false;
    std::uint64_t limit = UINT64_MAX;
};
/// Returns the selection of --sort, --reverse and --limit. Throws UsageError for unknown keys.
[[nodiscard]] ObjectSelection chooseObjectSelection(const Arguments& arguments);

/// Writes records as they arrive, or keeps them all for sorting. A table begins with a heading.
/// Used by one thread at a time; borrows the output.
class ObjectWriter {
  public:
    /// Throws UsageError for options that exclude each other.
    ObjectWriter(Output& output, const Arguments& arguments)
        : _output(output),
          _form(chooseObjectForm(arguments, output.isTerminal())),
          _exactSizes(arguments.has("bytes")),
          _selection(chooseObjectSelection(arguments)) {}

    void write(const Array& records);
    /// Returns the kept records as sorted text, and drops them; empty without --sort.
    [[nodiscard]] std::string takeSorted();
    [[nodiscard]] std::uint64_t count() const noexcept { return _count; }
    [[nodiscard]] bool sorts() const noexcept {
        return _selection.key != ObjectSelection::Key::none;
    }
    /// Whether the limit was reached, so that further records are dropped.
    [[nodiscard]] bool isFull() const noexcept { return !sorts() && _count >= _selection.limit; }

  private:
    [[nodiscard]] std::string heading() const;

    Output& _output;
    ObjectForm _form;
    bool _exactSizes;
    ObjectSelection _selection;
    std::uint64_t _count = 0;
    Array _kept;
};

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
