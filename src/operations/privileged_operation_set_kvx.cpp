// SPDX-License-Identifier: MIT
#include "operations/privileged_operation_set_kvx.hpp"

#include <fmt/format.h>

#include "operations/names.hpp"

namespace corvalen {
namespace {

constexpr unsigned long long kMajorVersion = 1;
constexpr unsigned long long kMinorVersion = 4;

}  // namespace

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
