// SPDX-License-Identifier: MIT
#include "cli/text.hpp"

#include <fmt/format.h>

#include <corvalen/catalogue.hpp>
#include <vector>

#include "operations/errors.hpp"
#include "operations/names.hpp"
#include "operations/operation_descriptions.hpp"

namespace corvalen::cli {
namespace {

/// A remark about one argument, feedback message, answer or error of an operation.
struct Remark {
    std::string subject;
    std::string text;
};

std::string errorName(const ErrorDescription& error) {
    switch (error.origin) {
        case ErrorOrigin::posix:
            return error.code != 0 ? fmt::format("Error POSIX {}", error.code) : "Error POSIX";
        case ErrorOrigin::operation:
            return fmt::format("Error {}", error.code);
        case ErrorOrigin::file:
            break;
    }
    return "Error Cocoa";
}

std::vector<Remark> remarksOn(const OperationDescription& description) {
    std::vector<Remark> remarks;
    std::size_t position = 0;
    for (const ArgumentDescription& argument : description.arguments)
        remarks.push_back(
            {fmt::format("Argument {}{}, {}: {}", position++, argument.repeats ? " and on" : "",
                         argument.type, argument.name),
             std::string(argument.meaning)});
    for (const FeedbackDescription& feedback : description.feedback)
        remarks.push_back(
            {fmt::format("Feedback {}", feedback.keys), std::string(feedback.meaning)});
    if (!description.answer.empty()) remarks.push_back({"Answer", std::string(description.answer)});
    for (const ErrorDescription& error : description.errors)
        remarks.push_back({errorName(error), std::string(error.when)});
    return remarks;
}

std::string exampleOf(const OperationDescription& description) {
    const OperationInfo* operation = findOperation(description.code);
    std::string example = fmt::format("corvalenctl call {}", operation->identifier);
    if (!description.example.empty()) example.append(" ").append(description.example);
    return example;
}

std::string replaced(std::string text, std::string_view what, std::string_view with) {
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size()))
        text.replace(at, what.size(), with);
    return text;
}

std::string sentences(const OperationDescription& description) {
    std::string text = std::string(description.summary) + ".";
    if (!description.details.empty()) text.append(" ").append(description.details);
    return text;
}

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

/// Returns the beginning of a JSON object.
std::string jsonFields(const OperationInfo& operation) {
    const std::string count =
        operation.argumentCount ? fmt::format("{}", *operation.argumentCount) : "null";
    return fmt::format(R"({{"code":{},"identifier":{},"argumentCount":{},"argumentTypes":{},)",
                       operation.code, jsonString(operation.identifier), count,
                       jsonString(operation.argumentTypes)) +
           fmt::format(R"("feedback":{},"policy":{},"prompt":{})",
                       jsonString(feedbackName(operation.feedback)),
                       jsonString(policyName(operation.policy)), jsonString(operation.prompt));
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
    for (const OperationInfo& operation : operationCatalogue())
        lines += jsonFields(operation) + "}\n";
    return lines;
}

std::string operationJson(const OperationDescription& description) {
    Array remarks;
    for (const Remark& remark : remarksOn(description))
        remarks.emplace_back(Dictionary{{"subject", remark.subject}, {"text", remark.text}});
    return jsonFields(*findOperation(description.code)) +
           fmt::format(R"(,"description":{},"remarks":{},"example":{}}})",
                       jsonString(sentences(description)), jsonValue(Value(remarks)),
                       jsonString(exampleOf(description))) +
           "\n";
}

std::string operationText(const OperationDescription& description) {
    const OperationInfo* operation = findOperation(description.code);
    std::string text = fmt::format("{} ({})\n  {}\n", operation->identifier, operation->code,
                                   sentences(description));
    for (const Remark& remark : remarksOn(description))
        text += fmt::format("  {}: {}\n", remark.subject, remark.text);
    return text + fmt::format("  Example: {}\n", exampleOf(description));
}

std::string operationsOfManual() {
    std::string text;
    for (const OperationDescription& description : operationDescriptions()) {
        const OperationInfo* operation = findOperation(description.code);
        text += fmt::format("*{}* ({})\n\t{}\n\n", operation->identifier, operation->code,
                            manualText(sentences(description)));
        for (const Remark& remark : remarksOn(description))
            text +=
                fmt::format("\t_{}_: {}.\n\n", manualText(remark.subject), manualText(remark.text));
        text += fmt::format("\tExample: *{}*\n\n", manualText(exampleOf(description)));
    }
    return text;
}

std::string errorCodesOfManual() {
    std::string text;
    constexpr int kCodes = 18;
    for (int code = 1; code <= kCodes; ++code) {
        const auto known = static_cast<OperationErrorCode>(code);
        text += fmt::format("*{}*\n\t{}\n\n\t{}\n\n", code,
                            manualText(operationErrorDescription(known)),
                            manualText(operationErrorSuggestion(known)));
    }
    return text;
}

std::string manualText(std::string_view text) {
    std::string escaped;
    for (const char character : text) {
        if (std::string_view("\\_*#[]|<>.").find(character) != std::string_view::npos)
            escaped += '\\';
        escaped += character;
    }
    return replaced(escaped, "\n", "\n\t");
}

}  // namespace corvalen::cli
