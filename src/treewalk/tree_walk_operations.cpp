// SPDX-License-Identifier: MIT
#include "treewalk/tree_walk_operations.hpp"

namespace corvalen {

void TreeWalkOperations::registerMethods(MethodTable& table) {
    using Self = TreeWalkOperations;
    table.add("performOperationSearchAgedfilesWithArguments:feedbackConnection:", *this,
              &Self::performOperationSearchAgedfilesWithArguments);
    table.add("performOperationSearchFilenamesWithArguments:feedbackConnection:", *this,
              &Self::performOperationSearchFilenamesWithArguments);
    table.add("performOperationSearchPatternsWithArguments:feedbackConnection:", *this,
              &Self::performOperationSearchPatternsWithArguments);
    table.add("performOperationSearchFileorphansWithArguments:feedbackConnection:", *this,
              &Self::performOperationSearchFileorphansWithArguments);
    table.add("performOperationInspectStoragesizeWithArguments:", *this,
              &Self::performOperationInspectStoragesizeWithArguments);
    table.add("performOperationPropPermissionsWithArguments:feedbackConnection:", *this,
              &Self::performOperationPropPermissionsWithArguments);
}

}  // namespace corvalen
