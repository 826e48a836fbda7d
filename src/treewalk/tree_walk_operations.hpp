// SPDX-License-Identifier: MIT
// The operations that walk directory trees.
#pragma once

#include "operations/operation_rows.hpp"
#include "platform/authorization/user_database.hpp"
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

    /// Finds all objects below the directory that were modified at least a number of days ago.
    ErrorRef performOperationSearchAgedfilesWithArguments(const Array& arguments,
                                                          FeedbackConnection* feedbackConnection);
    /// Finds objects directly in the directory by prefix, extension and kind.
    ErrorRef performOperationSearchFilenamesWithArguments(const Array& arguments,
                                                          FeedbackConnection* feedbackConnection);
    /// Finds all objects below the directory whose name matches a rule. Walks twice, to count and
    /// to match. Also POSIX 22 for faulty rules, 2 for an empty directory.
    ErrorRef performOperationSearchPatternsWithArguments(const Array& arguments,
                                                         FeedbackConnection* feedbackConnection);
    /// Finds the objects with an unknown owner; a directory that holds only such objects is one
    /// find.
    ErrorRef performOperationSearchFileorphansWithArguments(const Array& arguments,
                                                            FeedbackConnection* feedbackConnection);
    /// Returns the sum of the sizes of everything below the directory as the answer, in bytes.
    ErrorRef performOperationInspectStoragesizeWithArguments(const Array& arguments);
    /// Copies the chosen parts of the directory's permissions to everything below it. The first
    /// failure ends it (codes 14 to 17, POSIX 22 for an object with a set-ID bit or capabilities).
    /// Not synced: it can be repeated. Skips subdirectories that cannot be listed.
    ErrorRef performOperationPropPermissionsWithArguments(const Array& arguments,
                                                          FeedbackConnection* feedbackConnection);

  private:
    UserDatabase& _users;
    ExtendedAcl& _acl;
};

}  // namespace corvalen
