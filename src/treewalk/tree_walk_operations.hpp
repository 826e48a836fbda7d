// SPDX-License-Identifier: MIT
// The operations that walk hierarchies.
#pragma once

#include "operations/method_table.hpp"
#include "platform/extended_acl.hpp"
#include "platform/user_database.hpp"

namespace corvalen {

/// Searches, permission propagation and storage size. Holds no state of a request: any number of
/// threads may call at once. Feedback connections may be null. The folder is always argument 0; all
/// give POSIX 22 for an empty path, 2 where nothing is there and 20 where no folder is, and
/// `cancelledError` when the current cancellation ended the walk before its next object.
class TreeWalkOperations : public OperationGroup {
  public:
    /// The services are borrowed and outlive the group.
    TreeWalkOperations(UserDatabase& users, ExtendedAcl& acl) : _users(users), _acl(acl) {}

    void registerMethods(MethodTable& table) override;

    /// Finds every object below a folder that was modified at least so many days ago.
    ErrorRef performOperationSearchAgedfilesWithArguments(const Array& arguments,
                                                          FeedbackConnection* feedbackConnection);
    /// Finds the objects directly in a folder by prefix, extension and kind.
    ErrorRef performOperationSearchFilenamesWithArguments(const Array& arguments,
                                                          FeedbackConnection* feedbackConnection);
    /// Finds every object below a folder whose name one of the rules matches; walks twice, to count
    /// and to match. Also POSIX 22 for faulty rules, 2 for an empty folder.
    ErrorRef performOperationSearchPatternsWithArguments(const Array& arguments,
                                                         FeedbackConnection* feedbackConnection);
    /// Finds the objects whose owner nobody knows; a folder that holds nothing else counts once.
    ErrorRef performOperationSearchFileorphansWithArguments(const Array& arguments,
                                                            FeedbackConnection* feedbackConnection);
    /// Answers with the sum of the sizes of everything below a folder.
    ErrorRef performOperationInspectStoragesizeWithArguments(const Array& arguments);
    /// Gives everything below a folder the chosen parts of the folder's own permissions; the first
    /// failure ends it (codes 14 to 17, POSIX 22 for an object with a set-ID bit or capabilities).
    /// Not synced: it can be made again. Subfolders that cannot be listed are passed over.
    ErrorRef performOperationPropPermissionsWithArguments(const Array& arguments,
                                                          FeedbackConnection* feedbackConnection);

  private:
    UserDatabase& _users;
    ExtendedAcl& _acl;
};

}  // namespace corvalen
