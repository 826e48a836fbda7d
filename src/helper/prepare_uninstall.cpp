// SPDX-License-Identifier: MIT
// prepare-uninstall: removes the definitions of all rights; a failed removal is not reported. Takes
// no arguments.
#include "helper/maintenance_operations.hpp"

namespace corvalen {

ErrorRef MaintenanceOperations::prepareUninstall(const Array& /*arguments*/) {
    AuthorizationStatus status = kAuthorizationSuccess;
    const auto reference = _services.authorization.create(&status);
    if (status != kAuthorizationSuccess) return makeOSStatusError(status);
    _services.operationSet.removeAuthorizationRightsForImplementedOperationsUsingAuthorization(
        _services.authorization, reference.get());
    return nullptr;
}

}  // namespace corvalen
