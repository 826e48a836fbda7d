// SPDX-License-Identifier: MIT
// A request for an operation, and its steps in their fixed order.
#pragma once

#include <string>
#include <string_view>

#include "corvalen/error.hpp"
#include "helper/activity.hpp"
#include "helper/helper_log.hpp"
#include "helper/maintenance_operations.hpp"
#include "operations/privileged_operation.hpp"
#include "operations/privileged_operation_set.hpp"
#include "platform/authorization/authorization.hpp"
#include "platform/authorization/identity.hpp"

namespace corvalen {

/// One request as received. Borrows everything.
struct PrivilegedRequest {
    OperationCode code = kNoOperationCode;
    std::string_view authorizationData;
    EndpointRef feedbackEndpoint;
    /// Null if the client sent no list.
    const Array* arguments = nullptr;
    /// The caller's identity according to the kernel.
    const PeerIdentity& peer;
    /// The caller's account; null for no limits.
    std::shared_ptr<UserQuotas> quotas = nullptr;
};

// authorizer.cpp

/// Returns null if the right of `operation` (null for an unknown code) is granted to the caller of
/// the request, whose arguments may be unchecked. Else POSIX 22 for authorization data of the wrong
/// length or an operation without a right, POSIX 1 for a denied right, POSIX 89 for a dismissed
/// dialog, and the status itself for everything else. Blocks while the user is asked. A request of
/// discard-auth forgets all rights of the authorization afterwards, granted or not. Passes on
/// exceptions of the service; the right is not granted then.
[[nodiscard]] ErrorRef checkAuthorization(AuthorizationService& service,
                                          const PrivilegedRequest& request,
                                          const OperationEntry* operation);

// request_audit.cpp

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

// request_pipeline.cpp

/// The parts of the daemon that a request uses; borrowed.
struct RequestServices {
    HelperLog& log;
    const QRLPrivilegedOperationSet& operationSet;
    AuthorizationService& authorization;
    MaintenanceOperations& maintenance;
    RunningRequests& requests;
};

/// Performs all steps of a request on this thread: resolved, authorized, checked against its
/// descriptor, performed. Authorization comes before every check of the arguments; a rejection
/// skips all later steps. Every granted request ends with an audit line, unless everybody has the
/// right. An operation on many objects stops before its next one if the client is gone or the
/// process is about to end. Never returns null: POSIX code 0 means success. An operation's
/// exception becomes its error: POSIX 12 if memory ran out, else 5.
[[nodiscard]] ErrorRef performRequest(const RequestServices& services,
                                      const PrivilegedRequest& request);

}  // namespace corvalen
