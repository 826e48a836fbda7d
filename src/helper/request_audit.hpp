// SPDX-License-Identifier: MIT
// The audit line of a granted operation.
#pragma once

#include <string>

#include "corvalen/error.hpp"
#include "helper/helper_log.hpp"
#include "helper/privileged_request.hpp"
#include "operations/privileged_operation_set.hpp"

namespace corvalen {

/// The audit of one request, on its thread. The constructor reads the caller's executable, since
/// the client may be gone after the operation. Borrows its parameters.
class RequestAudit {
  public:
    RequestAudit(HelperLog& log, const PrivilegedRequest& request, const OperationEntry& operation);

    /// Writes the line at notice level, with the thread's fields and its own, and a record to the
    /// kernel's audit log. `result` is the reply; null for success. Ignores failures, since the
    /// operation cannot be undone.
    void write(const ErrorRef& result) noexcept;

  private:
    void writeLineAndRecord(const ErrorRef& result);

    HelperLog& _log;
    const PrivilegedRequest& _request;
    const OperationEntry& _operation;
    std::string _executable;
};

}  // namespace corvalen
