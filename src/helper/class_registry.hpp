// SPDX-License-Identifier: MIT
// The classes that the bundle may name as its principal class.
#pragma once

#include <string_view>

#include "operations/privileged_operation_set.hpp"

namespace corvalen {

/// How the shared operation set of the class called `className` is made, with everything that it
/// performs; empty for a name without a class.
[[nodiscard]] QRLPrivilegedOperationSet::Factory operationSetFactoryForClassName(
    std::string_view className);

}  // namespace corvalen
