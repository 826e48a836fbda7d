// SPDX-License-Identifier: MIT
#include "helper/helper_log.hpp"

namespace corvalen {
namespace {

const LogFields kNoFields;
thread_local const LogFields* fieldsOfThread = &kNoFields;
thread_local HelperLog* logOfThread = nullptr;
thread_local UserQuotas* accountOfThread = nullptr;

}  // namespace

bool HelperLog::write(LogLevel level, std::string_view line, std::string_view messageId) {
    if (accountOfThread != nullptr && !accountOfThread->logLines().admit(quotaSecond())) {
        noteLeftOut();
        return false;
    }
    if (messageId.empty()) {
        _log->log(level, line, *fieldsOfThread);
        return true;
    }
    LogFields fields = *fieldsOfThread;
    fields.emplace_back(kMessageIdField, messageId);
    _log->log(level, line, fields);
    return true;
}

void HelperLog::logErrorMessage(std::string_view message) {
    if (message.empty()) return;
    debug(LogLine("Error during execution of privileged operation: {}", message),
          kOperationFailedId);
}

void HelperLog::notice(std::string_view line, const LogFields& fields) {
    LogFields all = *fieldsOfThread;
    all.insert(all.end(), fields.begin(), fields.end());
    _log->log(LogLevel::notice, line, all);
}

void HelperLog::noteLeftOut() {
    if (!_leftOut.exchange(true) && _onLeftOut) _onLeftOut();
}

bool HelperLog::reportLeftOutLines(const std::vector<std::shared_ptr<UserQuotas>>& accounts,
                                   std::uint32_t now) {
    if (!_leftOut.exchange(false)) return true;
    for (const auto& account : accounts) {
        const std::uint64_t count = account->logLines().takeLeftOut(now);
        if (count > 0) {
            _log->log(LogLevel::informational,
                      LogLine("{} log lines of user {} were left out.", count, account->user()));
        }
        if (!account->logLines().isIdle(now)) _leftOut = true;
    }
    return !_leftOut;
}

LogQuotaScope::LogQuotaScope(UserQuotas* account) noexcept
    : _outer(std::exchange(accountOfThread, account)) {}

LogQuotaScope::~LogQuotaScope() {
    accountOfThread = _outer;
}

RequestLogScope::RequestLogScope(HelperLog& log, const LogFields& fields) noexcept
    : _outerLog(std::exchange(logOfThread, &log)),
      _outerFields(std::exchange(fieldsOfThread, &fields)) {}

RequestLogScope::~RequestLogScope() {
    logOfThread = _outerLog;
    fieldsOfThread = _outerFields;
}

HelperLog* logOfRequest() noexcept {
    return logOfThread;
}

}  // namespace corvalen
