// SPDX-License-Identifier: MIT
// The classes that the bundle may name as its principal class.
#pragma once

#include <string_view>

#include "operations/privileged_operation_set.hpp"

namespace corvalen {

/// Returns a factory of the operation set of class `className`, with all its methods; empty if
/// there is no such class.
[[nodiscard]] QRLPrivilegedOperationSet::Factory operationSetFactoryForClassName(
    std::string_view className);

}  // namespace corvalen
