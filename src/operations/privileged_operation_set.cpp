// SPDX-License-Identifier: MIT
#include "operations/privileged_operation_set.hpp"

#include <fmt/format.h>
#include <libintl.h>

#include <algorithm>

#include "operations/names.hpp"
#include "platform/log/logs.hpp"

namespace corvalen {
namespace {

constexpr unsigned long long kMajorVersion = 1;
constexpr unsigned long long kMinorVersion = 4;

constexpr std::string_view kRightLocalizationTable = "PrivilegedOperations";
constexpr std::string_view kErrorLocalizationTable = "PrivilegedOperationErrors";

OperationEntry::Implementation implementationOf(const QRLPrivilegedOperation& operation,
                                                std::string_view feedbackKeyword,
                                                const MethodTable& methods) {
    OperationEntry::Implementation implementation;
    implementation.selector = fmt::format(
        "performOperation{}WithArguments:{}",
        operation.operationIdentifierForExecutionSelector().value_or(""), feedbackKeyword);
    implementation.method = methods.find(implementation.selector);
    return implementation;
}

/// Returns the translation of `text` in `table`, or `text` itself. A table is a text domain of
/// gettext(3), as in polkit, which shows the prompts. The process's locale selects the catalogue.
std::string localizedString(std::string_view text, std::string_view table) {
    std::string key(text);
    if (key.find('\0') != std::string::npos) return key;
    return ::dgettext(std::string(table).c_str(), key.c_str());
}

void localizeEntry(Dictionary& userInfo, std::string_view key) {
    const Value* entry = userInfo.find(key);
    const std::string* text = entry == nullptr ? nullptr : entry->string();
    // gettext(3) returns the catalogue's header for the empty key.
    if (text == nullptr || text->empty()) return;
    userInfo.set(key, localizedString(*text, kErrorLocalizationTable));
}

}  // namespace

QRLPrivilegedOperationSet& QRLPrivilegedOperationSet::privilegedOperationSet(
    const Factory& factory) {
    // Never destroyed: threads may still read it while the process ends.
    static QRLPrivilegedOperationSet* const shared = factory().release();
    return *shared;
}

std::string QRLPrivilegedOperationSet::errorDomain() {
    return std::string(kErrorDomain);
}

std::string QRLPrivilegedOperationSet::nameOfAuthorizationRightLocalizationTable() {
    return std::string(kRightLocalizationTable);
}

std::string QRLPrivilegedOperationSet::nameOfErrorMessageLocalizationTable() {
    return std::string(kErrorLocalizationTable);
}

ErrorRef QRLPrivilegedOperationSet::localizedErrorForPrivilegedOperationError(
    const ErrorRef& error) {
    if (!error || error->userInfo() == nullptr) return error;
    Dictionary userInfo = *error->userInfo();
    localizeEntry(userInfo, kLocalizedDescriptionKey);
    localizeEntry(userInfo, kLocalizedRecoverySuggestionKey);
    if (const auto underlying = error->underlyingError()) {
        userInfo.set(kUnderlyingErrorKey, localizedErrorForPrivilegedOperationError(underlying));
    }
    return makeError(error->domain(), error->code(), std::move(userInfo));
}

std::string QRLPrivilegedOperationSet::serviceIdentifierForHelper() const {
    return fmt::format("{}.system.privilegedhelper-{}", kVendorPrefix, implementationCode());
}

std::string QRLPrivilegedOperationSet::nameOfXPCRequestorForHelper() const {
    return fmt::format("{}.xpc.privilegerequestor-{}", kVendorPrefix, implementationCode());
}

std::optional<std::string>
QRLPrivilegedOperationSet::authorizationRightNameForOperationWithIdentifier(
    std::string_view identifier) const {
    const auto found = implementedOperations().find(identifier);
    if (found == implementedOperations().end() || !found->second) return std::nullopt;
    return found->second->authenticationRightNameForImplementationIdentifier(implementationCode());
}

void QRLPrivilegedOperationSet::setAuthorizationRightsForImplementedOperationsUsingAuthorization(
    AuthorizationService& service, Authorization* authorization) const {
    if (authorization == nullptr) return;
    enumerateRightDefinitionsUsingBlock([&](const std::string& rightName, const Value& definition,
                                            const std::string& presentation) {
        if (service.rightGet(rightName) != kAuthorizationDenied) return;
        if (service.rightSet(authorization, rightName, definition, presentation,
                             kRightLocalizationTable) != kAuthorizationSuccess) {
            consoleLog(fmt::format(
                "WARNING: authorization database did not accept right definition for '{}'!\n",
                rightName));
        }
    });
}

void QRLPrivilegedOperationSet::removeAuthorizationRightsForImplementedOperationsUsingAuthorization(
    AuthorizationService& service, Authorization* authorization) const {
    enumerateRightDefinitionsUsingBlock(
        [&](const std::string& rightName, const Value&, const std::string&) {
            if (service.rightGet(rightName) != kAuthorizationSuccess) return;
            if (service.rightRemove(authorization, rightName) != kAuthorizationSuccess) {
                consoleLog(fmt::format(
                    "WARNING: authorization database did not remove right definition for '{}'!\n",
                    rightName));
            }
        });
}

void QRLPrivilegedOperationSet::enumerateRightDefinitionsUsingBlock(
    const RightDefinitionBlock& block) const {
    for (const auto& [identifier, operation] : implementedOperations()) {
        if (!operation) continue;
        const auto rightName =
            operation->authenticationRightNameForImplementationIdentifier(implementationCode());
        if (!rightName) continue;
        block(*rightName, operation->authenticationPolicy(), operation->presentationString());
    }
}

std::vector<RightDefinition> QRLPrivilegedOperationSet::rightDefinitions() const {
    std::vector<RightDefinition> definitions;
    enumerateRightDefinitionsUsingBlock([&](const std::string& rightName, const Value& definition,
                                            const std::string& presentation) {
        definitions.push_back({rightName, definition, presentation});
    });
    return definitions;
}

const OperationEntry* QRLPrivilegedOperationSet::operationWithCode(
    OperationCode code) const noexcept {
    const auto found = std::lower_bound(
        _entries.begin(), _entries.end(), code,
        [](const OperationEntry& entry, OperationCode wanted) { return entry.code < wanted; });
    return found == _entries.end() || found->code != code ? nullptr : &*found;
}

std::optional<std::string_view>
QRLPrivilegedOperationSet::selectorForExecutionOfPrivilegedOperationWithCode(
    OperationCode code, bool feedbackOption) const noexcept {
    const auto* entry = operationWithCode(code);
    if (entry == nullptr) return std::nullopt;
    const auto& implementation = entry->implementation(feedbackOption);
    if (implementation.method == nullptr) return std::nullopt;
    return implementation.selector;
}

bool QRLPrivilegedOperationSet::respondsToSelector(std::string_view selector) const noexcept {
    return methodForSelector(selector) != nullptr;
}

OperationCode QRLPrivilegedOperationSet::opCodeForOperation(
    const QRLPrivilegedOperation* operation) const {
    if (operation == nullptr) return kNoOperationCode;
    for (const auto& [code, identifier] : opIdentifiersByCode()) {
        if (identifier == operation->identifier()) return code;
    }
    return kNoOperationCode;
}

void QRLPrivilegedOperationSet::indexOperations(std::string_view implementationCode,
                                                const OperationMap& operations,
                                                const IdentifierMap& identifiersByCode,
                                                const MethodTable& methods) {
    _entries.reserve(identifiersByCode.size());
    for (const auto& [code, identifier] : identifiersByCode) {
        OperationEntry entry;
        entry.code = code;
        entry.identifier = identifier;
        const auto found = operations.find(identifier);
        if (found != operations.end() && found->second) {
            const auto& operation = *found->second;
            entry.operation = &operation;
            entry.rightName =
                operation.authenticationRightNameForImplementationIdentifier(implementationCode)
                    .value_or("");
            entry.plain = implementationOf(operation, "", methods);
            entry.withFeedback = implementationOf(operation, "feedbackConnection:", methods);
        }
        _entries.push_back(std::move(entry));
    }
}

QRLPrivilegedOperationSetKVX::QRLPrivilegedOperationSetKVX(
    std::vector<std::unique_ptr<OperationGroup>> groups)
    : QRLPrivilegedOperationSetKVX(operationTable().data(), std::move(groups)) {}

QRLPrivilegedOperationSetKVX::QRLPrivilegedOperationSetKVX(
    const StaticOperationDescription* table, std::vector<std::unique_ptr<OperationGroup>> groups)
    : _implementationCode(kImplementationCode),
      _implementationVersion(fmt::format("{}.{}", kMajorVersion, kMinorVersion)),
      _groups(std::move(groups)) {
    const auto* row = table;
    do {
        if (auto operation = QRLPrivilegedOperation::initWithStaticDescription(*row)) {
            _opIdentifiersByCode.insert_or_assign(row->code, operation->identifier());
            auto& slot = _implementedOperations[operation->identifier()];
            slot = std::move(operation);
        }
        ++row;
    } while (row->code != kEndOfTableCode);

    for (const auto& group : _groups)
        group->registerMethods(_methods);
    indexOperations(_implementationCode, _implementedOperations, _opIdentifiersByCode, _methods);
}

const OperationMethod* QRLPrivilegedOperationSetKVX::methodForSelector(
    std::string_view selector) const noexcept {
    return _methods.find(selector);
}

}  // namespace corvalen
