// SPDX-License-Identifier: MIT
// The daemon's lines in the system log.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/system_log.hpp"
#include "xpc/user_quotas.hpp"

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

    /// `messageId` is one of log_message_ids.hpp, or empty. False when the line was left out
    /// because the quota of the thread's user is used up (see LogQuotaScope).
    bool error(std::string_view line, std::string_view messageId = {}) {
        return write(LogLevel::error, line, messageId);
    }
    bool debug(std::string_view line, std::string_view messageId = {}) {
        return write(static_cast<LogLevel>(level()), line, messageId);
    }

    /// A line of the audit: never left out, and with fields besides those of the thread.
    void notice(std::string_view line, const LogFields& fields);

    /// Called when a line was left out and nobody was told since the last call of
    /// `reportLeftOutLines`. Start-up.
    void setLeftOutHandler(std::function<void()> handler) { _onLeftOut = std::move(handler); }
    /// Says of each account how many lines were left out before the second `now`. False when
    /// there may be more to say of that second.
    bool reportLeftOutLines(const std::vector<std::shared_ptr<UserQuotas>>& accounts,
                            std::uint32_t now);

  private:
    bool write(LogLevel level, std::string_view line, std::string_view messageId);
    void noteLeftOut();

    std::shared_ptr<SystemLog> _log;
    std::atomic<std::uint32_t> _level{kNormalDebugLevel};
    std::atomic<bool> _leftOut{false};
    std::function<void()> _onLeftOut;
};

/// While it lives, the lines of this thread count against the log lines of an account; null for
/// lines that are never left out. Scopes nest; they borrow `account`.
class LogQuotaScope {
  public:
    explicit LogQuotaScope(UserQuotas* account) noexcept;
    ~LogQuotaScope();
    LogQuotaScope(const LogQuotaScope&) = delete;
    LogQuotaScope& operator=(const LogQuotaScope&) = delete;

  private:
    UserQuotas* _outer;
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
