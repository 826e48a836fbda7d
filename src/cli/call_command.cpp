// SPDX-License-Identifier: MIT
#include "cli/command_table.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <corvalen/catalogue.hpp>
#include <cstring>
#include <set>
#include <utility>

#include "cli/operation_runner.hpp"
#include "cli/report.hpp"
#include "foundation/borrowed_descriptor.hpp"

namespace corvalen::cli {
namespace {

/// A message holds at most 16 MiB; the path and the other parts of the request share the rest.
constexpr std::size_t kMaximumContentSize = (16U << 20U) - (64U << 10U);

/// Whether a pipe, a socket, or standard input was read before, and so has no more to give.
bool wasReadBefore(Descriptor file) {
    static std::set<std::pair<dev_t, ino_t>> read;
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) return false;
    const bool isStream = S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode);
    if (!isStream && file.get() != STDIN_FILENO) return false;
    return !read.emplace(status.st_dev, status.st_ino).second;
}

int hexDigit(char digit) {
    if (digit >= '0' && digit <= '9') return digit - '0';
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
    throw UsageError("data is written as pairs of hexadecimal digits");
}

Data parseHex(std::string_view digits) {
    if (digits.size() % 2 != 0) throw UsageError("data is written as pairs of hexadecimal digits");
    Data data;
    data.bytes.reserve(digits.size() / 2);
    for (std::size_t i = 0; i < digits.size(); i += 2)
        data.bytes.push_back(
            static_cast<std::uint8_t>(hexDigit(digits[i]) * 16 + hexDigit(digits[i + 1])));
    return data;
}

template <class T>
bool parseWhole(std::string_view text, T& value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size();
}

Value parseNumber(std::string_view text) {
    if (text == "true" || text == "false") return Value(text == "true");
    std::int64_t signedValue = 0;
    if (parseWhole(text, signedValue)) return Value(signedValue);
    std::uint64_t unsignedValue = 0;
    if (parseWhole(text, unsignedValue)) return Value(unsignedValue);
    double floating = 0;
    if (parseWhole(text, floating)) return Value(floating);
    throw UsageError("'" + std::string(text) + "' is no number");
}

bool hasType(const Value& argument, char type) {
    if (type == 'N') return argument.number() != nullptr;
    if (type == 'D') return argument.data() != nullptr;
    return argument.string() != nullptr;
}

bool matchesSignature(const Array& arguments, const OperationInfo& operation) {
    if (operation.argumentCount && arguments.size() != *operation.argumentCount) return false;
    for (std::size_t i = 0; i < arguments.size(); ++i)
        if (!hasType(arguments[i], operation.argumentCount ? operation.argumentTypes[i] : 'S'))
            return false;
    return true;
}

std::string signatureOf(const OperationInfo& operation) {
    if (!operation.argumentCount) return "any number of strings (S)";
    if (*operation.argumentCount == 0) return "no arguments";
    std::string types;
    for (const char type : operation.argumentTypes)
        types.append(" ").push_back(type);
    return "arguments of the types" + types;
}

int runCall(const Arguments& arguments) {
    return performCall(requestOfCall(arguments), arguments);
}

constexpr Positional kPositionals[] = {
    {"OPERATION", "its code or its identifier", 1, 1, Completion::operation},
    {"ARGUMENT", "TYPE:VALUE, that is S:text, N:number, D:hexadecimal digits or D:@file", 0,
     kUnlimited}};

const Command kCommands[] = {
    {"call",
     "Performs any operation, with its arguments as they go over the wire",
     "Arguments are sent as they stand: paths must be absolute. The numbers true and false are\n"
     "Booleans. What the operation finds, puts out or answers is shown; an answer is JSON.",
     {},
     kPositionals,
     nullptr,
     View::foundObjects,
     runCall},
};

}  // namespace

Request requestOfCall(const Arguments& arguments) {
    (void)operationOf(arguments.text("OPERATION"));
    Request request;
    for (const std::string& text : arguments.all("ARGUMENT"))
        request.arguments.push_back(parseTypedValue(text));
    return request;
}

int performCall(const Request& request, const Arguments& arguments) {
    const OperationInfo& operation = operationOf(arguments.text("OPERATION"));
    const int code = runRequest(operation, request, View::foundObjects, arguments);
    if (code == kExitFailure && !matchesSignature(request.arguments, operation))
        report(
            {"call", {}, std::string(operation.identifier) + " takes " + signatureOf(operation)});
    return code;
}

const OperationInfo& operationOf(std::string_view text) {
    OperationCode code = 0;
    const OperationInfo* operation =
        parseWhole(text, code) ? findOperation(code) : findOperation(text);
    if (operation == nullptr)
        throw UsageError("there is no operation '" + std::string(text) +
                         "'; see 'corvalenctl list'");
    return *operation;
}

Value parseTypedValue(std::string_view text) {
    if (text.size() < 2 || text[1] != ':')
        throw UsageError("'" + std::string(text) + "' is not of the form TYPE:VALUE");
    const std::string_view value = text.substr(2);
    switch (text.front()) {
        case 'S':
            return Value(value);
        case 'N':
            return parseNumber(value);
        case 'D':
            return !value.empty() && value.front() == '@' ? Value(readContent(value.substr(1)))
                                                          : Value(parseHex(value));
        default:
            throw UsageError("the type of '" + std::string(text) + "' is none of S, N and D");
    }
}

Data readContent(std::string_view path) {
    const std::string name(path);
    const UniqueFd opened(name == "-" ? -1 : ::open(name.c_str(), O_RDONLY | O_CLOEXEC));
    const Descriptor file = name == "-" ? kStandardInput : Descriptor(opened);
    if (!file) throw UsageError(name + ": " + std::strerror(errno));
    if (wasReadBefore(file))
        throw UsageError((name == "-" ? "standard input" : name) +
                         " was read already: name a file");
    Data data;
    std::size_t used = 0;
    while (true) {
        if (data.bytes.size() - used < 4096) data.bytes.resize(used + (64U << 10U));
        const ssize_t got = ::read(file.get(), data.bytes.data() + used, data.bytes.size() - used);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) throw UsageError(name + ": " + std::strerror(errno));
        if (got == 0) break;
        used += static_cast<std::size_t>(got);
        if (used > kMaximumContentSize)
            throw UsageError(name + ": more than a request can hold (16 MiB less 64 KiB)");
    }
    data.bytes.resize(used);
    return data;
}

std::span<const Command> callCommands() {
    return kCommands;
}

}  // namespace corvalen::cli
