// SPDX-License-Identifier: MIT
#include "helper/helper_log.hpp"

namespace corvalen {
namespace {

const LogFields kNoFields;
thread_local const LogFields* fieldsOfThread = &kNoFields;

}  // namespace

void HelperLog::write(LogLevel level, std::string_view line) {
    _log->log(level, line, *fieldsOfThread);
}

LogFieldsScope::LogFieldsScope(const LogFields& fields) noexcept : _outer(fieldsOfThread) {
    fieldsOfThread = &fields;
}

LogFieldsScope::~LogFieldsScope() {
    fieldsOfThread = _outer;
}

}  // namespace corvalen
