// SPDX-License-Identifier: MIT
// The line that every granted operation leaves for those who look after the machine.
#pragma once

#include <string>

#include "helper/privileged_helper.hpp"

namespace corvalen {

/// The audit of one request, on its thread. Finds out who asks when it is made, which is before the
/// operation is performed: the client may be gone afterwards. Borrows its parameters.
class RequestAudit {
  public:
    RequestAudit(HelperLog& log, const PrivilegedRequest& request, const OperationEntry& operation);

    /// Writes the line at notice level, with the fields of the thread and its own, and the record
    /// of the kernel's audit log. `result` is what the client gets; null for success. What the
    /// operation did cannot be undone any more, so nothing that fails here is passed on.
    void write(const ErrorRef& result) noexcept;

  private:
    void writeLineAndRecord(const ErrorRef& result);

    HelperLog& _log;
    const PrivilegedRequest& _request;
    const OperationEntry& _operation;
    std::string _executable;
};

}  // namespace corvalen
