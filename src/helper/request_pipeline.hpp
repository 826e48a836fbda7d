// SPDX-License-Identifier: MIT
// The steps of every request, in their fixed order.
#pragma once

#include "corvalen/error.hpp"
#include "helper/helper_log.hpp"
#include "helper/maintenance_operations.hpp"
#include "helper/privileged_request.hpp"
#include "helper/running_requests.hpp"
#include "operations/privileged_operation_set.hpp"
#include "platform/authorization/authorization.hpp"

namespace corvalen {

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
