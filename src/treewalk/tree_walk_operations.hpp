// SPDX-License-Identifier: MIT
// The operations that walk directory trees.
#pragma once

#include "operations/operation_rows.hpp"
#include "platform/authorization/identity.hpp"
#include "platform/files/extended_acl.hpp"

namespace corvalen {

/// Searches, permission propagation and storage size. Any thread may call: no request leaves state
/// behind. Feedback connections may be null. Argument 0 is the directory. Errors of all: POSIX 22
/// for an empty path, 2 if nothing is there, 20 if it is not a directory, and `cancelledError` if
/// the current cancellation ended the walk.
class TreeWalkOperations : public GroupOfRows<TreeWalkOperations> {
  public:
    /// Borrows the services, which must outlive the group.
    TreeWalkOperations(UserDatabase& users, ExtendedAcl& acl) : _users(users), _acl(acl) {}

    // Each file describes its arguments.
    ErrorRef performOperationSearchAgedfilesWithArguments(const Array& arguments,
                                                          FeedbackConnection* feedbackConnection);
    ErrorRef performOperationSearchFilenamesWithArguments(const Array& arguments,
                                                          FeedbackConnection* feedbackConnection);
    ErrorRef performOperationSearchPatternsWithArguments(const Array& arguments,
                                                         FeedbackConnection* feedbackConnection);
    ErrorRef performOperationSearchFileorphansWithArguments(const Array& arguments,
                                                            FeedbackConnection* feedbackConnection);
    ErrorRef performOperationInspectStoragesizeWithArguments(const Array& arguments);
    ErrorRef performOperationPropPermissionsWithArguments(const Array& arguments,
                                                          FeedbackConnection* feedbackConnection);

  private:
    UserDatabase& _users;
    ExtendedAcl& _acl;
};

}  // namespace corvalen
