// SPDX-License-Identifier: MIT
// The system log with numeric priorities, and the console log.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace corvalen {

/// Priorities as syslog(3) numbers them.
enum class LogLevel : std::uint8_t { error = 3, notice = 5, informational = 6, debug = 7 };

/// Additional fields of a line: name (upper case letters, digits, underscores) and value. Back
/// ends without fields leave them out.
using LogFields = std::vector<std::pair<std::string_view, std::string>>;

/// A log handle with its ident, facility and sender. Any thread may log; a line is written whole.
/// Control characters in a line or field cannot begin a new line or field.
class SystemLog {
  public:
    virtual ~SystemLog() = default;
    /// Where the lines go ("journal", "syslog" or "standard error").
    [[nodiscard]] virtual std::string_view destination() const noexcept = 0;
    /// Whether fields are kept; making them is in vain where they are not.
    [[nodiscard]] virtual bool takesFields() const noexcept { return false; }
    virtual void log(LogLevel level, std::string_view line, const LogFields& fields = {}) = 0;
};

/// Opens the log: the journal when somebody listens there, else syslog, else standard error.
/// Which it is is found out by connecting. Null when nothing can be opened.
[[nodiscard]] std::unique_ptr<SystemLog> openSystemLog(std::string_view ident,
                                                       std::string_view facility,
                                                       std::string_view sender);

/// Writes one line to standard error, led by the program's name; control characters other than the
/// final newline are escaped.
void consoleLog(std::string_view line);

/// `text` with control characters as \xNN, for a log line.
[[nodiscard]] std::string escapedForLog(std::string_view text);

}  // namespace corvalen
