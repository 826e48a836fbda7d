// SPDX-License-Identifier: MIT
#include "treewalk/tree_walk_operations.hpp"

#include <string>
#include <string_view>

namespace corvalen {

namespace {

using ReportingMethod = ErrorRef (TreeWalkOperations::*)(const Array&, FeedbackConnection*);

}  // namespace

void TreeWalkOperations::registerMethods(MethodTable& table) {
    const auto addReporting = [this, &table](std::string_view operation, ReportingMethod method) {
        const std::string selector =
            "performOperation" + std::string(operation) + "WithArguments:feedbackConnection:";
        table.add(selector, FeedbackOperationMethod([this, method](const Array& arguments,
                                                                   FeedbackConnection* connection) {
                      return (this->*method)(arguments, connection);
                  }));
    };
    addReporting("SearchPatterns",
                 &TreeWalkOperations::performOperationSearchPatternsWithArguments);
}

}  // namespace corvalen
