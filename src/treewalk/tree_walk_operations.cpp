// SPDX-License-Identifier: MIT
#include "treewalk/tree_walk_operations.hpp"

namespace corvalen {
namespace {

using ReportingMethod = ErrorRef (TreeWalkOperations::*)(const Array&, FeedbackConnection*);

struct ReportingOperation {
    std::string_view selector;
    ReportingMethod method;
};

constexpr ReportingOperation kReportingOperations[] = {
    {"performOperationSearchAgedfilesWithArguments:feedbackConnection:",
     &TreeWalkOperations::performOperationSearchAgedfilesWithArguments},
    {"performOperationSearchFilenamesWithArguments:feedbackConnection:",
     &TreeWalkOperations::performOperationSearchFilenamesWithArguments},
    {"performOperationSearchPatternsWithArguments:feedbackConnection:",
     &TreeWalkOperations::performOperationSearchPatternsWithArguments},
    {"performOperationSearchFileorphansWithArguments:feedbackConnection:",
     &TreeWalkOperations::performOperationSearchFileorphansWithArguments},
    {"performOperationPropPermissionsWithArguments:feedbackConnection:",
     &TreeWalkOperations::performOperationPropPermissionsWithArguments},
};

}  // namespace

void TreeWalkOperations::registerMethods(MethodTable& table) {
    for (const ReportingOperation& operation : kReportingOperations) {
        table.add(operation.selector, FeedbackOperationMethod([this, method = operation.method](
                                                                  const Array& arguments,
                                                                  FeedbackConnection* connection) {
                      return (this->*method)(arguments, connection);
                  }));
    }
    table.add("performOperationInspectStoragesizeWithArguments:",
              PlainOperationMethod([this](const Array& arguments) {
                  return performOperationInspectStoragesizeWithArguments(arguments);
              }));
}

}  // namespace corvalen
