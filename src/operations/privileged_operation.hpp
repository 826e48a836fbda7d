// SPDX-License-Identifier: MIT
// One operation of the catalogue, and the table row that it is made from.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "corvalen/value.hpp"
#include "platform/processes/threads.hpp"

namespace corvalen {

using OperationCode = std::uint64_t;

/// Argument count of an operation that takes any number of strings.
inline constexpr std::int64_t kVariableArgumentCount = 0x7fffffffffffffff;
/// Returned by `opCodeForOperation` for an unknown operation.
inline constexpr OperationCode kNoOperationCode = 0x7fffffffffffffff;
/// Codes of the operations that the daemon performs itself.
inline constexpr OperationCode kPrepareUninstallCode = 9995;
inline constexpr OperationCode kDeleteFilesCode = 9996;
inline constexpr OperationCode kDiscardAuthCode = 9997;
inline constexpr OperationCode kNopCode = 9998;
/// Code of the row that ends the table.
inline constexpr OperationCode kEndOfTableCode = 9999;

/// One row of the compiled-in table.
struct StaticOperationDescription {
    OperationCode code;
    const char* identifier;
    std::uint64_t authenticationPolicy;
    std::uint64_t capabilityFlags;
    std::int64_t argumentCount;
    const char* argumentTypeCodes;
    const char* userPresentation;
    CapabilitySet neededCapabilities = 0;
};

/// An immutable descriptor; any thread may read it.
class QRLPrivilegedOperation {
  public:
    /// Returns null if the parameters contradict each other.
    static std::unique_ptr<const QRLPrivilegedOperation> initWithIdentifier(
        std::string_view identifier, Value authenticationPolicy, bool progressCapability,
        bool outputCapability, std::int64_t argumentCount, std::optional<std::string> argumentTypes,
        std::string_view userPresentation, CapabilitySet neededCapabilities = 0);
    /// Returns null for an unusable row; reports one that contradicts itself on the console log.
    static std::unique_ptr<const QRLPrivilegedOperation> initWithStaticDescription(
        const StaticOperationDescription& description);

    [[nodiscard]] const std::string& identifier() const noexcept { return _identifier; }
    [[nodiscard]] const Value& authenticationPolicy() const noexcept {
        return _authenticationPolicy;
    }
    [[nodiscard]] bool isSupportingProgressFeedback() const noexcept { return _progress; }
    [[nodiscard]] bool isSupportingLiveOutput() const noexcept { return _liveOutput; }
    [[nodiscard]] std::int64_t argumentCount() const noexcept { return _argumentCount; }
    [[nodiscard]] const std::optional<std::string>& argumentTypeCodes() const noexcept {
        return _argumentTypeCodes;
    }
    [[nodiscard]] const std::string& presentationString() const noexcept {
        return _presentationString;
    }
    /// Capabilities that are effective while the operation is performed; no others are.
    [[nodiscard]] CapabilitySet neededCapabilities() const noexcept { return _neededCapabilities; }

    /// Returns std::nullopt for an empty implementation identifier.
    [[nodiscard]] std::optional<std::string> authenticationRightNameForImplementationIdentifier(
        std::string_view implementationIdentifier) const;
    /// Returns the identifier as a part of the method's selector ("DeleteFiles"); std::nullopt if
    /// it is empty.
    [[nodiscard]] std::optional<std::string> operationIdentifierForExecutionSelector() const;

  private:
    QRLPrivilegedOperation() = default;

    std::string _identifier;
    Value _authenticationPolicy;
    bool _progress = false;
    bool _liveOutput = false;
    std::int64_t _argumentCount = 0;
    std::optional<std::string> _argumentTypeCodes;
    std::string _presentationString;
    CapabilitySet _neededCapabilities = 0;
};

}  // namespace corvalen
