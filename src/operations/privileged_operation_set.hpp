// SPDX-License-Identifier: MIT
// The registry of operations: names, rights, codes, and the methods that perform them.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/error.hpp"
#include "operations/method_table.hpp"
#include "operations/privileged_operation.hpp"
#include "platform/authorization.hpp"

namespace corvalen {

using RightDefinitionBlock = std::function<void(
    const std::string& rightName, const Value& definition, const std::string& presentation)>;

/// The base of an operation set. Constant after construction; any thread may read it.
class QRLPrivilegedOperationSet {
  public:
    using OperationMap =
        std::map<std::string, std::unique_ptr<const QRLPrivilegedOperation>, std::less<>>;
    using IdentifierMap = std::map<OperationCode, std::string>;

    virtual ~QRLPrivilegedOperationSet() = default;

    static std::string errorDomain();
    static std::string nameOfAuthorizationRightLocalizationTable();
    static std::string nameOfErrorMessageLocalizationTable();
    /// A copy of the error with its texts looked up in the localization table of error messages,
    /// down the chain of underlying errors. Texts without an entry pass through.
    static ErrorRef localizedErrorForPrivilegedOperationError(const ErrorRef& error);

    [[nodiscard]] virtual const std::string& implementationCode() const noexcept = 0;
    [[nodiscard]] virtual const std::string& implementationVersion() const noexcept = 0;
    [[nodiscard]] virtual const OperationMap& implementedOperations() const noexcept = 0;
    [[nodiscard]] virtual const IdentifierMap& opIdentifiersByCode() const noexcept = 0;

    [[nodiscard]] std::string serviceIdentifierForHelper() const;
    [[nodiscard]] std::string nameOfXPCRequestorForHelper() const;
    [[nodiscard]] std::optional<std::string> authorizationRightNameForOperationWithIdentifier(
        std::string_view identifier) const;

    /// Defines every right that does not exist yet; does nothing without an authorization.
    void setAuthorizationRightsForImplementedOperationsUsingAuthorization(
        AuthorizationService& service, Authorization* authorization) const;
    /// Removes every right that exists.
    void removeAuthorizationRightsForImplementedOperationsUsingAuthorization(
        AuthorizationService& service, Authorization* authorization) const;
    void enumerateRightDefinitionsUsingBlock(const RightDefinitionBlock& block) const;

    /// The selector text of the implementing method, when the set responds to it.
    [[nodiscard]] std::optional<std::string> selectorForExecutionOfPrivilegedOperationWithCode(
        OperationCode code, bool feedbackOption) const;
    [[nodiscard]] bool respondsToSelector(std::string_view selector) const noexcept;
    /// The method behind a selector, or null.
    [[nodiscard]] virtual const OperationMethod* methodForSelector(
        std::string_view selector) const noexcept = 0;

    /// `kNoOperationCode` for null or an operation that is not in the set.
    [[nodiscard]] OperationCode opCodeForOperation(const QRLPrivilegedOperation* operation) const;
};

}  // namespace corvalen
