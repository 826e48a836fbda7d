// SPDX-License-Identifier: MIT
#pragma once

#include <string>

#include "operations/operation_rows.hpp"

namespace corvalen::test {

/// Calls an operation as the daemon does. `operation` is the part of the selector that names it.
inline ErrorRef perform(const MethodTable& table, const std::string& operation,
                        const Array& arguments, FeedbackConnection* feedback) {
    const std::string selector = "performOperation" + operation + "WithArguments:";
    if (const OperationMethod* method = table.find(selector))
        return std::get<PlainOperationMethod>(*method)(arguments);
    return std::get<FeedbackOperationMethod>(*table.find(selector + "feedbackConnection:"))(
        arguments, feedback);
}
inline ErrorRef perform(OperationGroup& operations, const std::string& operation,
                        const Array& arguments, FeedbackConnection* feedback) {
    MethodTable table;
    operations.registerMethods(table);
    return perform(table, operation, arguments, feedback);
}

}  // namespace corvalen::test
