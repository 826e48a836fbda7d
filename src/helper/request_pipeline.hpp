// SPDX-License-Identifier: MIT
// The steps that every request takes, in their fixed order.
#pragma once

#include <memory>
#include <optional>

#include "helper/feedback_channel.hpp"
#include "helper/privileged_helper.hpp"

namespace corvalen {

/// Within a catch block: logs why the operation was given up and gives the error to reply with,
/// POSIX 12 when memory ran out, else 5.
ErrorRef errorOfCurrentException(HelperLog& log, std::string_view operation);

/// One request on its way: resolved, authorized, held against its descriptor, performed. Lives for
/// the call, on one thread. Authorization comes before everything that looks at the arguments, and
/// nothing after a rejection is done. Whatever follows a grant ends with a line of the audit,
/// except where everybody has the right. An operation on many objects ends before its next one when
/// the client has gone, or the process is about to end.
class RequestPipeline {
  public:
    RequestPipeline(QRLPrivilegedHelper& helper, const PrivilegedRequest& request);

    /// Takes all steps. Never null: POSIX code 0 stands for success. What an operation throws
    /// becomes its error.
    ErrorRef perform();

  private:
    [[nodiscard]] const char* identifier() const noexcept { return _operation->identifier.c_str(); }
    void announce();
    ErrorRef resolve();
    ErrorRef authorize();
    /// What comes after the grant; null for success.
    ErrorRef performGranted();
    /// The same for a right that not everybody has: leaves a line that says who used it.
    ErrorRef performAudited();
    ErrorRef checkArguments();
    ErrorRef checkVariableArguments();
    ErrorRef checkArgumentClasses(std::string_view typeCodes);
    ErrorRef openFeedback();
    ErrorRef performCancellably();
    ErrorRef dispatch();
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
    LogFieldsScope _fieldsScope;
    RunningRequest _running;
    /// From the grant on: what was granted is logged, however much it is.
    std::optional<LogQuotaScope> _unlimitedLog;
    bool _announced = true;
    std::unique_ptr<FeedbackChannel> _feedback;
};

}  // namespace corvalen
