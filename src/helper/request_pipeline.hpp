// SPDX-License-Identifier: MIT
// The steps that every request takes, in their fixed order.
#pragma once

#include <memory>

#include "helper/feedback_channel.hpp"
#include "helper/privileged_helper.hpp"

namespace corvalen {

/// Within a catch block: logs why the operation was given up and gives the error to reply with,
/// POSIX 12 when memory ran out, else 5.
ErrorRef errorOfCurrentException(HelperLog& log, std::string_view operation);

/// One request on its way: resolved, authorized, held against its descriptor, performed. Lives for
/// the call, on one thread. Authorization comes before everything that looks at the arguments, and
/// nothing after a rejection is done.
class RequestPipeline {
  public:
    RequestPipeline(QRLPrivilegedHelper& helper, const PrivilegedRequest& request);

    /// Takes all steps. Never null: POSIX code 0 stands for success. What an operation throws
    /// becomes its error.
    ErrorRef perform();

  private:
    [[nodiscard]] const char* identifier() const noexcept { return _operation->identifier.c_str(); }
    ErrorRef resolve();
    ErrorRef authorize();
    ErrorRef checkArguments();
    ErrorRef checkVariableArguments();
    ErrorRef checkArgumentClasses(std::string_view typeCodes);
    ErrorRef openFeedback();
    ErrorRef dispatch();
    ErrorRef runImplementation();
    ErrorRef callMethod(const OperationMethod& method);
    void closeFeedback();

    [[nodiscard]] bool supportsProgress() const noexcept;
    [[nodiscard]] bool hasFeedbackOption() const noexcept;

    QRLPrivilegedHelper& _helper;
    HelperLog& _log;
    const PrivilegedRequest& _request;
    const OperationEntry* _operation;
    LogFields _fields;
    LogFieldsScope _fieldsScope;
    std::unique_ptr<FeedbackChannel> _feedback;
};

}  // namespace corvalen
