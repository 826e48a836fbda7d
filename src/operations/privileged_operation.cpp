// SPDX-License-Identifier: MIT
#include "operations/privileged_operation.hpp"

#include <fmt/format.h>

#include <cctype>

#include "operations/names.hpp"
#include "platform/log/logs.hpp"

namespace corvalen {
namespace {

bool isUsablePolicy(const Value& policy) noexcept {
    if (const auto* text = policy.string()) return !text->empty();
    if (const auto* rules = policy.dictionary()) return !rules->empty();
    return false;
}

bool typesFitCount(const std::optional<std::string>& types, std::int64_t count) noexcept {
    if (count == kVariableArgumentCount) return !types;
    const std::size_t length = types ? types->size() : 0;
    return count >= 0 && length == static_cast<std::size_t>(count);
}

std::optional<Value> policyOfWord(std::uint64_t word) {
    switch (word) {
        case 0:
            return Value("allow");
        case 1:
            return Value(Dictionary{{"rule", "default"}});
        case 2:
            return Value("authenticate-admin");
        default:
            return std::nullopt;
    }
}

void appendCapitalizedLetters(std::string& out, std::string_view piece) {
    bool first = true;
    for (const char character : piece) {
        const auto letter = static_cast<unsigned char>(character);
        if (std::isalpha(letter) == 0) continue;
        out.push_back(static_cast<char>(first ? std::toupper(letter) : std::tolower(letter)));
        first = false;
    }
}

}  // namespace

std::unique_ptr<const QRLPrivilegedOperation> QRLPrivilegedOperation::initWithIdentifier(
    std::string_view identifier, Value authenticationPolicy, bool progressCapability,
    bool outputCapability, std::int64_t argumentCount, std::optional<std::string> argumentTypes,
    std::string_view userPresentation, CapabilitySet neededCapabilities) {
    if (identifier.empty() || !isUsablePolicy(authenticationPolicy) ||
        (progressCapability && outputCapability) || !typesFitCount(argumentTypes, argumentCount) ||
        userPresentation.empty()) {
        return nullptr;
    }
    std::unique_ptr<QRLPrivilegedOperation> operation(new QRLPrivilegedOperation);
    operation->_identifier = identifier;
    operation->_authenticationPolicy = std::move(authenticationPolicy);
    operation->_progress = progressCapability;
    operation->_liveOutput = outputCapability;
    operation->_argumentCount = argumentCount;
    operation->_argumentTypeCodes = std::move(argumentTypes);
    operation->_presentationString = userPresentation;
    operation->_neededCapabilities = neededCapabilities;
    return operation;
}

std::unique_ptr<const QRLPrivilegedOperation> QRLPrivilegedOperation::initWithStaticDescription(
    const StaticOperationDescription& description) {
    if (description.identifier == nullptr || description.userPresentation == nullptr) {
        return nullptr;
    }
    auto policy = policyOfWord(description.authenticationPolicy);
    if (!policy) return nullptr;
    std::optional<std::string> types;
    if (description.argumentTypeCodes != nullptr) types = description.argumentTypeCodes;

    auto operation = initWithIdentifier(
        description.identifier, std::move(*policy), (description.capabilityFlags & 0xff) != 0,
        (description.capabilityFlags & 0xff00) != 0, description.argumentCount, std::move(types),
        description.userPresentation, description.neededCapabilities);
    if (!operation) {
        // Kept: the line begins with the rejected object, which is nil, instead of the class name.
        consoleLog(fmt::format(
            "(null): implementation error - the static description with code {} contains "
            "inconsistent data and was not accepted.\n",
            description.code));
    }
    return operation;
}

std::optional<std::string>
QRLPrivilegedOperation::authenticationRightNameForImplementationIdentifier(
    std::string_view implementationIdentifier) const {
    if (implementationIdentifier.empty()) return std::nullopt;
    return fmt::format("{}.{}.{}", kVendorPrefix, implementationIdentifier, _identifier);
}

std::optional<std::string> QRLPrivilegedOperation::operationIdentifierForExecutionSelector() const {
    if (_identifier.empty()) return std::nullopt;
    std::string form;
    std::string_view rest = _identifier;
    while (!rest.empty()) {
        const auto hyphen = rest.find('-');
        appendCapitalizedLetters(form, rest.substr(0, hyphen));
        rest.remove_prefix(hyphen == std::string_view::npos ? rest.size() : hyphen + 1);
    }
    return form;
}

}  // namespace corvalen
