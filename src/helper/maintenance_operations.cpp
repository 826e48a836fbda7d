// SPDX-License-Identifier: MIT
#include "helper/maintenance_operations.hpp"

#include "operations/operation_rows.hpp"

namespace corvalen {

MaintenanceOperations::Method MaintenanceOperations::methodForCode(OperationCode code) noexcept {
    Method found = nullptr;
    visitRowsOf<MaintenanceOperations>(
        [&](OperationCode rowCode, std::string_view /*name*/, Method method) {
            if (rowCode == code) found = method;
        });
    return found;
}

ErrorRef MaintenanceOperations::performNothing(const Array& /*arguments*/) {
    return nullptr;
}

}  // namespace corvalen
