// SPDX-License-Identifier: MIT
// The registry of operations: names, rights, codes, and the methods that perform them.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "corvalen/error.hpp"
#include "operations/operation_rows.hpp"
#include "operations/privileged_operation.hpp"
#include "platform/authorization/authorization.hpp"

namespace corvalen {

using RightDefinitionBlock = std::function<void(
    const std::string& rightName, const Value& definition, const std::string& presentation)>;

/// Everything about one operation code, computed once. Pointers and texts are valid as long as the
/// set.
struct OperationEntry {
    OperationCode code = kNoOperationCode;
    std::string identifier;
    /// Null if the code has an identifier without a descriptor.
    const QRLPrivilegedOperation* operation = nullptr;
    std::string rightName;

    /// One way to perform the operation; `method` is null without an implementation.
    struct Implementation {
        std::string selector;
        const OperationMethod* method = nullptr;
    };
    Implementation plain;
    Implementation withFeedback;

    [[nodiscard]] const Implementation& implementation(bool feedbackOption) const noexcept {
        return feedbackOption ? withFeedback : plain;
    }
};

/// The base of an operation set. Constant after construction; any thread may read it.
class QRLPrivilegedOperationSet {
  public:
    using OperationMap =
        std::map<std::string, std::unique_ptr<const QRLPrivilegedOperation>, std::less<>>;
    using IdentifierMap = std::map<OperationCode, std::string>;

    using Factory = std::function<std::unique_ptr<QRLPrivilegedOperationSet>()>;

    virtual ~QRLPrivilegedOperationSet() = default;
    QRLPrivilegedOperationSet(const QRLPrivilegedOperationSet&) = delete;
    QRLPrivilegedOperationSet& operator=(const QRLPrivilegedOperationSet&) = delete;

    /// Returns the one set of the process, which is never destroyed. The first call makes it with
    /// `factory`, which must not return null; later calls ignore `factory`. Thread-safe.
    static QRLPrivilegedOperationSet& privilegedOperationSet(const Factory& factory);

    static std::string errorDomain();
    static std::string nameOfAuthorizationRightLocalizationTable();
    static std::string nameOfErrorMessageLocalizationTable();
    /// Returns a copy of the error with translated texts, underlying errors included. Texts without
    /// a translation stay as they are.
    static ErrorRef localizedErrorForPrivilegedOperationError(const ErrorRef& error);

    [[nodiscard]] virtual const std::string& implementationCode() const noexcept = 0;
    [[nodiscard]] virtual const std::string& implementationVersion() const noexcept = 0;
    [[nodiscard]] virtual const OperationMap& implementedOperations() const noexcept = 0;
    [[nodiscard]] virtual const IdentifierMap& opIdentifiersByCode() const noexcept = 0;

    [[nodiscard]] std::string serviceIdentifierForHelper() const;
    [[nodiscard]] std::string nameOfXPCRequestorForHelper() const;
    [[nodiscard]] std::optional<std::string> authorizationRightNameForOperationWithIdentifier(
        std::string_view identifier) const;

    /// Defines every right that does not exist yet; does nothing if `authorization` is null.
    void setAuthorizationRightsForImplementedOperationsUsingAuthorization(
        AuthorizationService& service, Authorization* authorization) const;
    /// Removes every right that exists.
    void removeAuthorizationRightsForImplementedOperationsUsingAuthorization(
        AuthorizationService& service, Authorization* authorization) const;
    void enumerateRightDefinitionsUsingBlock(const RightDefinitionBlock& block) const;
    /// Returns the same definitions as a list.
    [[nodiscard]] std::vector<RightDefinition> rightDefinitions() const;

    /// Looks a code up without allocating; null if it is unknown.
    [[nodiscard]] const OperationEntry* operationWithCode(OperationCode code) const noexcept;
    /// Returns the selector of the implementing method; std::nullopt without one. Valid as long
    /// as the set.
    [[nodiscard]] std::optional<std::string_view> selectorForExecutionOfPrivilegedOperationWithCode(
        OperationCode code, bool feedbackOption) const noexcept;
    [[nodiscard]] bool respondsToSelector(std::string_view selector) const noexcept;
    /// The method behind a selector, or null.
    [[nodiscard]] virtual const OperationMethod* methodForSelector(
        std::string_view selector) const noexcept = 0;

    /// Returns `kNoOperationCode` for null and for operations that are not in the set.
    [[nodiscard]] OperationCode opCodeForOperation(const QRLPrivilegedOperation* operation) const;

  protected:
    QRLPrivilegedOperationSet() = default;
    /// Builds the index of `operationWithCode`. The concrete set calls it at the end of its
    /// constructor, with the values that its accessors return.
    void indexOperations(std::string_view implementationCode, const OperationMap& operations,
                         const IdentifierMap& identifiersByCode, const MethodTable& methods);

  private:
    std::vector<OperationEntry> _entries;  // sorted by code
};

/// The rows of the table, without its end marker.
[[nodiscard]] std::span<const StaticOperationDescription> operationTable() noexcept;

/// The concrete operation set: the table of operations, and the groups that perform them.
class QRLPrivilegedOperationSetKVX : public QRLPrivilegedOperationSet {
  public:
    /// The compiled-in table with the methods of `groups`. A client, which performs nothing, has no
    /// groups.
    explicit QRLPrivilegedOperationSetKVX(std::vector<std::unique_ptr<OperationGroup>> groups = {});
    /// Another table, ended by a row of code `kEndOfTableCode`.
    QRLPrivilegedOperationSetKVX(const StaticOperationDescription* table,
                                 std::vector<std::unique_ptr<OperationGroup>> groups);

    [[nodiscard]] const std::string& implementationCode() const noexcept override {
        return _implementationCode;
    }
    [[nodiscard]] const std::string& implementationVersion() const noexcept override {
        return _implementationVersion;
    }
    [[nodiscard]] const OperationMap& implementedOperations() const noexcept override {
        return _implementedOperations;
    }
    [[nodiscard]] const IdentifierMap& opIdentifiersByCode() const noexcept override {
        return _opIdentifiersByCode;
    }
    [[nodiscard]] const OperationMethod* methodForSelector(
        std::string_view selector) const noexcept override;

  private:
    std::string _implementationCode;
    std::string _implementationVersion;
    OperationMap _implementedOperations;
    IdentifierMap _opIdentifiersByCode;
    std::vector<std::unique_ptr<OperationGroup>> _groups;
    MethodTable _methods;
};

}  // namespace corvalen
