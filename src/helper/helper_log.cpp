// SPDX-License-Identifier: MIT
#include "helper/helper_log.hpp"

#include "helper/log_message_ids.hpp"

namespace corvalen {
namespace {

const LogFields kNoFields;
thread_local const LogFields* fieldsOfThread = &kNoFields;

}  // namespace

void HelperLog::write(LogLevel level, std::string_view line, std::string_view messageId) {
    if (messageId.empty()) return _log->log(level, line, *fieldsOfThread);
    LogFields fields = *fieldsOfThread;
    fields.emplace_back(kMessageIdField, messageId);
    _log->log(level, line, fields);
}

LogFieldsScope::LogFieldsScope(const LogFields& fields) noexcept : _outer(fieldsOfThread) {
    fieldsOfThread = &fields;
}

LogFieldsScope::~LogFieldsScope() {
    fieldsOfThread = _outer;
}

}  // namespace corvalen
