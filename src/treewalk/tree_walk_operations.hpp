// SPDX-License-Identifier: MIT
// The operations that walk hierarchies.
#pragma once

#include "operations/method_table.hpp"

namespace corvalen {

/// Searches, permission propagation and storage size. Holds no state of a request: any number of
/// threads may call at once. Feedback connections may be null.
class TreeWalkOperations : public OperationGroup {
  public:
    void registerMethods(MethodTable& table) override;

    /// Finds every object below a folder whose name one of the rules matches; walks twice, to count
    /// and to match. Errors: POSIX 22, 2, 20.
    ErrorRef performOperationSearchPatternsWithArguments(const Array& arguments,
                                                         FeedbackConnection* feedbackConnection);
};

}  // namespace corvalen
