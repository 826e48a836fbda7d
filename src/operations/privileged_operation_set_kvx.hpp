// SPDX-License-Identifier: MIT
// The concrete operation set: the table of operations, and the groups that perform them.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "operations/privileged_operation_set.hpp"

namespace corvalen {

/// The rows of the table, without the one that ends it.
[[nodiscard]] std::span<const StaticOperationDescription> operationTable() noexcept;

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
