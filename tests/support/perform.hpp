// SPDX-License-Identifier: MIT
#pragma once

#include <string>

#include "operations/method_table.hpp"

namespace corvalen::test {

/// Calls an operation through the table of methods, as the daemon does. `operation` is the part of
/// the selector that names it.
template <class Operations>
ErrorRef perform(Operations& operations, const std::string& operation, const Array& arguments,
                 FeedbackConnection* feedback) {
    MethodTable table;
    operations.registerMethods(table);
    const std::string selector = "performOperation" + operation + "WithArguments:";
    if (const OperationMethod* method = table.find(selector))
        return std::get<PlainOperationMethod>(*method)(arguments);
    return std::get<FeedbackOperationMethod>(*table.find(selector + "feedbackConnection:"))(
        arguments, feedback);
}

}  // namespace corvalen::test
