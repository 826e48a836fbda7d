// SPDX-License-Identifier: MIT
// The daemon's lines in the system log.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>

#include "platform/system_log.hpp"

namespace corvalen {

/// Levels at which debug lines are written: in debug mode they surface among the errors.
inline constexpr std::uint32_t kNormalDebugLevel = 7;
inline constexpr std::uint32_t kDebugModeLevel = 3;

/// Writes the daemon's lines with the fields of the request that the thread is working on. Any
/// thread may call.
class HelperLog {
  public:
    explicit HelperLog(std::shared_ptr<SystemLog> log) noexcept : _log(std::move(log)) {}

    /// The level of debug lines.
    [[nodiscard]] std::uint32_t level() const noexcept { return _level; }
    /// Gives the level that was in force.
    std::uint32_t setLevel(std::uint32_t level) noexcept { return _level.exchange(level); }

    /// Whether lines carry the fields of a request.
    [[nodiscard]] bool takesFields() const noexcept { return _log->takesFields(); }

    /// `messageId` is one of log_message_ids.hpp, or empty.
    void error(std::string_view line, std::string_view messageId = {}) {
        write(LogLevel::error, line, messageId);
    }
    void informational(std::string_view line) { write(LogLevel::informational, line, {}); }
    void debug(std::string_view line, std::string_view messageId = {}) {
        write(static_cast<LogLevel>(level()), line, messageId);
    }

  private:
    void write(LogLevel level, std::string_view line, std::string_view messageId);

    std::shared_ptr<SystemLog> _log;
    std::atomic<std::uint32_t> _level{kNormalDebugLevel};
};

/// While it lives, the lines of this thread carry these fields. Scopes nest; they borrow `fields`.
class LogFieldsScope {
  public:
    explicit LogFieldsScope(const LogFields& fields) noexcept;
    ~LogFieldsScope();
    LogFieldsScope(const LogFieldsScope&) = delete;
    LogFieldsScope& operator=(const LogFieldsScope&) = delete;

  private:
    const LogFields* _outer;
};

}  // namespace corvalen
