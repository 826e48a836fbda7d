// SPDX-License-Identifier: MIT
#include "cli/catalogue_list.hpp"

#include <fmt/format.h>

#include <corvalen/catalogue.hpp>

#include "cli/text.hpp"

namespace corvalen::cli {
namespace {

std::string_view policyName(OperationPolicy policy) {
    switch (policy) {
        case OperationPolicy::anybody:
            return "anybody";
        case OperationPolicy::administrators:
            return "administrators";
        case OperationPolicy::authenticatedAdministrators:
            break;
    }
    return "authenticated administrators";
}

std::string_view feedbackName(OperationFeedback feedback) {
    switch (feedback) {
        case OperationFeedback::none:
            return "none";
        case OperationFeedback::progress:
            return "progress";
        case OperationFeedback::liveOutput:
            break;
    }
    return "output";
}

std::string argumentsText(const OperationInfo& operation) {
    if (!operation.argumentCount) return "S...";
    return operation.argumentTypes.empty() ? "-" : std::string(operation.argumentTypes);
}

}  // namespace

std::string catalogueTable() {
    constexpr std::string_view row = "{:>4}  {:21}  {:9}  {:8}  {}\n";
    std::string table =
        fmt::format(fmt::runtime(row), "CODE", "OPERATION", "ARGUMENTS", "FEEDBACK", "ALLOWED FOR");
    for (const OperationInfo& operation : operationCatalogue())
        table += fmt::format(fmt::runtime(row), operation.code, operation.identifier,
                             argumentsText(operation), feedbackName(operation.feedback),
                             policyName(operation.policy));
    return table;
}

std::string catalogueJson() {
    std::string lines;
    for (const OperationInfo& operation : operationCatalogue()) {
        const std::string count =
            operation.argumentCount ? fmt::format("{}", *operation.argumentCount) : "null";
        lines += fmt::format(
            R"({{"code":{},"identifier":{},"argumentCount":{},"argumentTypes":{},)", operation.code,
            jsonString(operation.identifier), count, jsonString(operation.argumentTypes));
        lines +=
            fmt::format(R"("feedback":{},"policy":{},"prompt":{}}})",
                        jsonString(feedbackName(operation.feedback)),
                        jsonString(policyName(operation.policy)), jsonString(operation.prompt));
        lines += '\n';
    }
    return lines;
}

}  // namespace corvalen::cli
