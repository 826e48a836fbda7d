// SPDX-License-Identifier: MIT
// Makes the operation set that the bundle names, with the groups that perform its operations.
#pragma once

#include <string_view>

#include "operations/privileged_operation_set.hpp"

namespace corvalen {

/// Returns a factory of the operation set of class `className`, which the bundle names as its
/// principal class; empty if there is no such class. The set has every group, with platform
/// services that live as long as the process.
[[nodiscard]] QRLPrivilegedOperationSet::Factory operationSetFactoryForClassName(
    std::string_view className);

}  // namespace corvalen
