// SPDX-License-Identifier: MIT
#include "helper/request_pipeline.hpp"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <exception>
#include <memory>
#include <new>
#include <optional>

#include "helper/feedback_channel.hpp"
#include "helper/helper_log.hpp"
#include "operations/errors.hpp"

namespace corvalen {
namespace {

/// Journal fields that identify the lines of one client or one request.
LogFields fieldsOfRequest(const HelperLog& log, const PrivilegedRequest& request,
                          const OperationEntry* operation) {
    if (!log.takesFields()) return {};
    static std::atomic<std::uint64_t> requestCount{0};
    static const pid_t ownPid = ::getpid();
    LogFields fields;
    fields.reserve(5);
    fields.emplace_back("CORVALEN_REQUEST",
                        fmt::format(FMT_STRING("{}-{}"), ownPid, ++requestCount));
    fields.emplace_back("CORVALEN_CLIENT_PID", fmt::to_string(request.peer.pid));
    fields.emplace_back("CORVALEN_CLIENT_UID", fmt::to_string(request.peer.uid));
    fields.emplace_back("CORVALEN_OPERATION_CODE", fmt::to_string(request.code));
    if (operation != nullptr) fields.emplace_back("CORVALEN_OPERATION", operation->identifier);
    return fields;
}

/// Non-owning: avoids contention on the reference count.
ErrorRef success() {
    static const Error error(std::string(kPosixErrorDomain), 0);
    return {ErrorRef(), &error};
}

bool isOfType(const Value& argument, char typeCode) noexcept {
    switch (typeCode) {
        case 'S':
            return argument.string() != nullptr;
        case 'N':
            return argument.number() != nullptr;
        case 'D':
            return argument.data() != nullptr;
        default:
            return false;
    }
}

bool isTypeCode(char typeCode) noexcept {
    return typeCode == 'S' || typeCode == 'N' || typeCode == 'D';
}

/// Call in a catch block: logs the exception and returns the error to reply with.
ErrorRef errorOfCurrentException(HelperLog& log, std::string_view operation) {
    std::string reason = "unknown";
    int errnoValue = EIO;
    try {
        throw;
    } catch (const std::bad_alloc&) {
        reason = "out of memory";
        errnoValue = ENOMEM;
    } catch (const std::exception& exception) {
        reason = exception.what();
    } catch (...) {  // NOLINT(bugprone-empty-catch): the reason is set already
    }
    log.error(LogLine("Operation {} was given up ({}).", operation, reason), kOperationFailedId);
    return makePosixError(errnoValue);
}

/// One request. Lives for the call, on one thread.
class RequestPipeline {
  public:
    RequestPipeline(const RequestServices& services, const PrivilegedRequest& request);

    ErrorRef perform();

  private:
    [[nodiscard]] const char* identifier() const noexcept { return _operation->identifier.c_str(); }
    void announce();
    ErrorRef resolve();
    ErrorRef authorize();
    /// The steps after the grant; null for success.
    ErrorRef performGranted();
    /// Same with an audit line, for a right that not everybody has.
    ErrorRef performAudited();
    ErrorRef checkArguments();
    ErrorRef checkVariableArguments();
    ErrorRef checkArgumentClasses(std::string_view typeCodes);
    ErrorRef openFeedback();
    ErrorRef performCancellably();
    ErrorRef runImplementation();
    ErrorRef callMethod(const OperationMethod& method);
    void closeFeedback();
    void logStop(const ErrorRef& result);

    [[nodiscard]] bool isAllowedToAnybody() const noexcept;
    [[nodiscard]] bool supportsProgress() const noexcept;
    [[nodiscard]] bool hasFeedbackOption() const noexcept;

    const RequestServices& _services;
    HelperLog& _log;
    const PrivilegedRequest& _request;
    const OperationEntry* _operation;
    LogFields _fields;
    RequestLogScope _logScope;
    RunningRequest _running;
    /// Set from the grant on: the lines of granted requests have no quota.
    std::optional<LogQuotaScope> _unlimitedLog;
    bool _announced = true;
    std::unique_ptr<FeedbackChannel> _feedback;
};

RequestPipeline::RequestPipeline(const RequestServices& services, const PrivilegedRequest& request)
    : _services(services),
      _log(services.log),
      _request(request),
      _operation(services.operationSet.operationWithCode(request.code)),
      _fields(fieldsOfRequest(_log, request, _operation)),
      _logScope(_log, _fields),
      _running(services.requests, request.peer.socket, request.peer.uid) {}

ErrorRef RequestPipeline::perform() {
    if (ErrorRef rejection = resolve()) return rejection;
    if (ErrorRef rejection = authorize()) return rejection;
    ErrorRef result = isAllowedToAnybody() ? performGranted() : performAudited();
    return result ? result : success();
}

ErrorRef RequestPipeline::performAudited() {
    RequestAudit audit(_log, _request, *_operation);
    ErrorRef result;
    try {
        result = performGranted();
    } catch (...) {
        result = errorOfCurrentException(_log, identifier());
    }
    audit.write(result);
    return result;
}

ErrorRef RequestPipeline::performGranted() {
    if (ErrorRef rejection = checkArguments()) return rejection;
    if (ErrorRef rejection = openFeedback()) return rejection;
    ErrorRef result;
    try {
        result = performCancellably();
    } catch (...) {
        result = errorOfCurrentException(_log, identifier());
    }
    closeFeedback();
    logStop(result);
    _log.debug(LogLine(FMT_COMPILE("Operation {} was completed with return code {}."), identifier(),
                       result ? result->code() : 0),
               result && result->code() != 0 ? kOperationFailedId : std::string_view());
    return result;
}

ErrorRef RequestPipeline::resolve() {
    const Array* arguments = _request.arguments;
    if (_operation == nullptr || _operation->identifier.empty() || arguments == nullptr) {
        _log.error(LogLine("Received invalid operation with code {} argument list {}.",
                           _request.code, fmt::ptr(arguments)),
                   kRequestRejectedId);
        return makePosixError(EINVAL);
    }
    announce();
    return nullptr;
}

void RequestPipeline::announce() {
    _announced = _log.debug(
        LogLine(FMT_COMPILE("About to perform privileged operation '{}' with {} arguments."),
                identifier(), _request.arguments->size()));
}

bool RequestPipeline::isAllowedToAnybody() const noexcept {
    if (_operation->operation == nullptr) return false;
    const std::string* policy = _operation->operation->authenticationPolicy().string();
    return policy != nullptr && *policy == "allow";
}

ErrorRef RequestPipeline::authorize() {
    const CancellationScope cancellation(_running);
    ErrorRef refusal = checkAuthorization(_services.authorization, _request, _operation);
    if (refusal) {
        _log.debug(LogLine("Operation could not be authorized, rejected with error code {}.",
                           refusal->code()),
                   kRequestDeniedId);
    } else if (!isAllowedToAnybody()) {
        _unlimitedLog.emplace(nullptr);
        if (!_announced) announce();
    }
    return refusal;
}

ErrorRef RequestPipeline::checkArguments() {
    const QRLPrivilegedOperation* descriptor = _operation->operation;
    const std::int64_t expected = descriptor != nullptr ? descriptor->argumentCount() : 0;
    if (expected == kVariableArgumentCount) return checkVariableArguments();

    const std::size_t sent = _request.arguments->size();
    if (sent != static_cast<std::uint64_t>(expected)) {
        _log.error(LogLine("Operation {} was rejected because an invalid number of arguments was "
                           "specified ({} expected, {} sent).",
                           identifier(), static_cast<std::uint64_t>(expected), sent),
                   kRequestRejectedId);
        return makePosixError(EINVAL);
    }
    std::string_view typeCodes;
    if (descriptor != nullptr && descriptor->argumentTypeCodes())
        typeCodes = *descriptor->argumentTypeCodes();
    if (typeCodes.size() != sent) {
        _log.error(LogLine("Operation {} was rejected because a contradiction in its definition "
                           "has been detected (bad type codes).",
                           identifier()),
                   kRequestRejectedId);
        return makePosixError(EINVAL);
    }
    return checkArgumentClasses(typeCodes);
}

ErrorRef RequestPipeline::checkVariableArguments() {
    for (const Value& argument : *_request.arguments) {
        if (argument.string() != nullptr) continue;
        _log.error(LogLine("Operation {} was rejected because at least one argument has class {} "
                           "(string expected).",
                           identifier(), argument.className()),
                   kRequestRejectedId);
        return makePosixError(EINVAL);
    }
    return nullptr;
}

ErrorRef RequestPipeline::checkArgumentClasses(std::string_view typeCodes) {
    for (std::size_t i = 0; i < typeCodes.size(); ++i) {
        const char typeCode = typeCodes[i];
        const Value& argument = (*_request.arguments)[i];
        if (!isTypeCode(typeCode)) {
            _log.error(LogLine("Operation {} was rejected because a contradiction in its "
                               "definition has been detected (invalid type code '{}').",
                               identifier(), typeCode),
                       kRequestRejectedId);
            return makePosixError(EINVAL);
        }
        if (!isOfType(argument, typeCode)) {
            _log.error(LogLine("Operation {} was rejected because argument {} has class {} "
                               "(expected type '{}').",
                               identifier(), i, argument.className(), typeCode),
                       kRequestRejectedId);
            return makePosixError(EINVAL);
        }
    }
    return nullptr;
}

bool RequestPipeline::supportsProgress() const noexcept {
    return _operation->operation != nullptr &&
           _operation->operation->isSupportingProgressFeedback();
}

bool RequestPipeline::hasFeedbackOption() const noexcept {
    return supportsProgress() ||
           (_operation->operation != nullptr && _operation->operation->isSupportingLiveOutput());
}

ErrorRef RequestPipeline::openFeedback() {
    if (!hasFeedbackOption() || _request.feedbackEndpoint.descriptor == nullptr) return nullptr;

    Dictionary opening;
    if (supportsProgress()) {
        opening.set(kQRLPORK_ProgressFraction, 0.0);
    } else {
        opening.set(kQRLPORK_OutputData, Data{});
        opening.set(kQRLPORK_ErrorData, Data{});
    }
    auto opened =
        FeedbackChannel::open(_request.feedbackEndpoint, std::move(opening), _request.quotas);
    if (opened) {
        _feedback = *std::move(opened);
        return nullptr;
    }
    _log.error(LogLine("The operation is supporting feedback information, but no return connection "
                       "could be opened ({}).",
                       opened.error()->localizedDescription()),
               kOperationFailedId);
    return opened.error();
}

ErrorRef RequestPipeline::performCancellably() {
    const MaintenanceOperations::Method own = MaintenanceOperations::methodForCode(_request.code);
    if (own == &MaintenanceOperations::performNothing) return nullptr;
    const RunningRequest::Performing performing(_running);
    if (!performing) return cancelledError(_running);
    const CancellationScope cancellation(_running);
    const QRLPrivilegedOperation* descriptor = _operation->operation;
    const ScopedCapabilities capabilities(descriptor != nullptr ? descriptor->neededCapabilities()
                                                                : 0);
    return own != nullptr ? (_services.maintenance.*own)(*_request.arguments) : runImplementation();
}

ErrorRef RequestPipeline::runImplementation() {
    const OperationMethod* method = _operation->implementation(hasFeedbackOption()).method;
    if (method == nullptr ||
        std::holds_alternative<FeedbackOperationMethod>(*method) != hasFeedbackOption()) {
        _log.error(
            LogLine(
                "Privileged operation {} could not be performed because no implementation found.",
                identifier()),
            kOperationFailedId);
        return makePosixError(EINVAL);
    }
    _log.debug(LogLine("Operation {} will be executed with feedback option {}.", identifier(),
                       _feedback ? "enabled" : "disabled"));
    return callMethod(*method);
}

ErrorRef RequestPipeline::callMethod(const OperationMethod& method) {
    if (const auto* reporting = std::get_if<FeedbackOperationMethod>(&method))
        return (*reporting)(*_request.arguments, _feedback.get());
    return std::get<PlainOperationMethod>(method)(*_request.arguments);
}

void RequestPipeline::logStop(const ErrorRef& result) {
    const bool wasCancelled = result && result->domain() == kPosixErrorDomain &&
                              result->code() == posixCodeFromErrno(ECANCELED);
    if (!wasCancelled) return;
    const bool helperEnds = _services.requests.areCancelled();
    if (!helperEnds && !_running.requested()) return;
    _log.debug(LogLine("Operation {} was stopped after {} objects because {}.", identifier(),
                       _running.objectCount(),
                       helperEnds ? "the helper ends" : "its client has gone"));
}

void RequestPipeline::closeFeedback() {
    if (!_feedback) return;
    _log.debug("Sending final feedback message.");
    Dictionary final;
    final.set(kQRLPORK_FinalFeedbackMessage, true);
    _feedback->processPrivilegedOperationFeedback(std::move(final));
    _log.debug(LogLine("Suspending feedback connection {}.", _feedback->address()));
    _feedback.reset();
}

}  // namespace

ErrorRef performRequest(const RequestServices& services, const PrivilegedRequest& request) {
    try {
        return RequestPipeline(services, request).perform();
    } catch (...) {
        return errorOfCurrentException(services.log, "request");
    }
}

}  // namespace corvalen
