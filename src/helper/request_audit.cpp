// SPDX-License-Identifier: MIT
#include "helper/request_pipeline.hpp"

#include <algorithm>

#include "helper/helper_log.hpp"
#include "operations/names.hpp"
#include "operations/operation_arguments.hpp"
#include "platform/log/logs.hpp"

namespace corvalen {
namespace {

/// Maximum number of object fields; further objects are only counted.
constexpr std::size_t kMaximumObjectFields = 256;
/// Bytes; the log cuts long lines at their end, where the outcome is.
constexpr std::size_t kLongestShownObject = 4096;

std::string objectsText(const std::vector<std::string>& objects) {
    if (objects.empty()) return "";
    std::string text = ", object " + objects.front().substr(0, kLongestShownObject);
    if (objects.front().size() > kLongestShownObject) text += "...";
    if (objects.size() > 1) text += fmt::format(" and {} more", objects.size() - 1);
    return text;
}

LogFields fieldsOf(const std::string& executable, const std::vector<std::string>& objects,
                   std::string_view domain, std::int64_t code) {
    LogFields fields;
    const std::size_t count = std::min(objects.size(), kMaximumObjectFields);
    fields.reserve(count + 5);
    fields.emplace_back(kMessageIdField, audit_field::kMessageId);
    fields.emplace_back(audit_field::kExecutable, executable);
    fields.emplace_back(audit_field::kOutcome, fmt::to_string(code));
    fields.emplace_back(audit_field::kOutcomeDomain, domain);
    fields.emplace_back(audit_field::kObjectCount, fmt::to_string(objects.size()));
    for (std::size_t i = 0; i < count; ++i)
        fields.emplace_back(audit_field::kObject, objects[i]);
    return fields;
}

}  // namespace

RequestAudit::RequestAudit(HelperLog& log, const PrivilegedRequest& request,
                           const OperationEntry& operation)
    : _log(log),
      _request(request),
      _operation(operation),
      _executable(executableOfPeer(request.peer)) {}

void RequestAudit::write(const ErrorRef& result) noexcept {
    try {
        writeLineAndRecord(result);
    } catch (...) {  // NOLINT(bugprone-empty-catch): no memory for a line
    }
}

void RequestAudit::writeLineAndRecord(const ErrorRef& result) {
    const auto objects = objectsOfRequest(_operation, *_request.arguments);
    const std::int64_t code = result ? result->code() : 0;
    const std::string domain = code == 0 ? std::string() : result->domain();
    _log.notice(
        LogLine("Audit: user {}, process {}, executable {}, operation {}{}, outcome {}{}{}.",
                _request.peer.uid, _request.peer.pid, _executable.empty() ? "unknown" : _executable,
                _operation.identifier, objectsText(objects), domain, domain.empty() ? "" : " ",
                code),
        fieldsOf(_executable, objects, domain, code));
    recordInKernelAudit({_operation.identifier, _request.peer, _executable, objects, code == 0});
}

}  // namespace corvalen
