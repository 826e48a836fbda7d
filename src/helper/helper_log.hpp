// SPDX-License-Identifier: MIT
// The daemon's lines in the system log: their text, message ids and fields.
#pragma once

#include <fmt/compile.h>
#include <fmt/format.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/log/logs.hpp"
#include "xpc/limits.hpp"

namespace corvalen {

/// Formats a log line; allocates only for a long one.
class LogLine {
  public:
    template <class... Parts>
    explicit LogLine(fmt::format_string<Parts...> format, Parts&&... parts) {
        fmt::format_to(fmt::appender(_text), format, std::forward<Parts>(parts)...);
    }
    /// Takes a format in FMT_COMPILE, for lines of every request.
    template <class Format, class... Parts>
    requires std::is_class_v<Format>
    explicit LogLine(const Format& format, const Parts&... parts) {
        fmt::format_to(fmt::appender(_text), format, parts...);
    }
    // NOLINTNEXTLINE(google-explicit-constructor): a line is passed where text is expected.
    operator std::string_view() const noexcept { return {_text.data(), _text.size()}; }

  private:
    fmt::memory_buffer _text;
};

// Message ids of the lines that administrators look for (systemd.journal-fields(7), MESSAGE_ID);
// resources/corvalen.catalog has their texts. An id never changes its meaning. The id of the audit
// is in operations/names.hpp, for its readers.
inline constexpr std::string_view kMessageIdField = "MESSAGE_ID";
inline constexpr std::string_view kHelperStartedId = "4fbc48f36cc849ca91e6f6f2cf9163d0";
inline constexpr std::string_view kHelperEndedId = "dc1f11abfe5d4bc1a2600bb3a8df81b0";
inline constexpr std::string_view kRequestRejectedId = "f86b8f9e72e74f728fbe92278479f348";
inline constexpr std::string_view kRequestDeniedId = "b8fabc55800c463bbe9df76f9fe60ce9";
inline constexpr std::string_view kOperationFailedId = "1c753b500d164facbcf4a2dce6d3e2db";

/// Levels of debug lines: in debug mode they are logged as errors.
inline constexpr std::uint32_t kNormalDebugLevel = 7;
inline constexpr std::uint32_t kDebugModeLevel = 3;

/// Writes log lines with the fields of the request that the calling thread handles. Thread-safe.
class HelperLog {
  public:
    explicit HelperLog(std::shared_ptr<SystemLog> log) noexcept : _log(std::move(log)) {}

    /// The level of debug lines.
    [[nodiscard]] std::uint32_t level() const noexcept { return _level; }
    /// Returns the previous level.
    std::uint32_t setLevel(std::uint32_t level) noexcept { return _level.exchange(level); }

    /// Returns true if the log stores the fields of a line.
    [[nodiscard]] bool takesFields() const noexcept { return _log->takesFields(); }

    /// `messageId` is one of those above, or empty. Returns false if the line was left out
    /// because the quota of the thread's user is used up (see LogQuotaScope).
    bool error(std::string_view line, std::string_view messageId = {}) {
        return write(LogLevel::error, line, messageId);
    }
    bool debug(std::string_view line, std::string_view messageId = {}) {
        return write(static_cast<LogLevel>(level()), line, messageId);
    }

    /// Logs an operation's message about a failure; ignores an empty one.
    void logErrorMessage(std::string_view message);

    /// Writes an audit line with further fields. Never left out.
    void notice(std::string_view line, const LogFields& fields);

    /// `handler` is called for the first line left out after a `reportLeftOutLines`. Start-up.
    void setLeftOutHandler(std::function<void()> handler) { _onLeftOut = std::move(handler); }
    /// Logs for each account how many lines were left out before the second `now`. Returns false if
    /// lines may remain to be reported.
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

/// While it lives, this thread's lines count against the log quota of `account`; null: no quota.
/// Scopes nest and borrow `account`.
class LogQuotaScope {
  public:
    explicit LogQuotaScope(UserQuotas* account) noexcept;
    ~LogQuotaScope();
    LogQuotaScope(const LogQuotaScope&) = delete;
    LogQuotaScope& operator=(const LogQuotaScope&) = delete;

  private:
    UserQuotas* _outer;
};

/// While it lives, this thread works on a request: `log` is the request's log, and the thread's
/// lines carry `fields`. Scopes nest and borrow their parameters.
class RequestLogScope {
  public:
    RequestLogScope(HelperLog& log, const LogFields& fields) noexcept;
    ~RequestLogScope();
    RequestLogScope(const RequestLogScope&) = delete;
    RequestLogScope& operator=(const RequestLogScope&) = delete;

  private:
    HelperLog* _outerLog;
    const LogFields* _outerFields;
};

/// Returns the log of the request that this thread works on; null outside of a request.
[[nodiscard]] HelperLog* logOfRequest() noexcept;

}  // namespace corvalen
