// SPDX-License-Identifier: MIT
// The steps of every request, in their fixed order.
#pragma once

#include <memory>
#include <optional>

#include "helper/feedback_channel.hpp"
#include "helper/privileged_helper.hpp"

namespace corvalen {

/// Call in a catch block: logs the exception and returns the error to reply with, POSIX 12 if
/// memory ran out, else 5.
ErrorRef errorOfCurrentException(HelperLog& log, std::string_view operation);

/// One request: resolved, authorized, checked against its descriptor, performed. Lives for the
/// call, on one thread. Authorization comes before every check of the arguments; a rejection skips
/// all later steps. Every granted request ends with an audit line, unless everybody has the right.
/// An operation on many objects stops before its next one if the client is gone or the process is
/// about to end.
class RequestPipeline {
  public:
    RequestPipeline(QRLPrivilegedHelper& helper, const PrivilegedRequest& request);

    /// Performs all steps. Never returns null: POSIX code 0 means success. An operation's exception
    /// becomes its error.
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

    QRLPrivilegedHelper& _helper;
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

}  // namespace corvalen
