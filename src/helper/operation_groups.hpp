// SPDX-License-Identifier: MIT
// The groups of operations that the daemon performs.
#pragma once

#include <memory>
#include <vector>

#include "operations/method_table.hpp"

namespace corvalen {

/// Returns every group, with platform services that live as long as the process.
[[nodiscard]] std::vector<std::unique_ptr<OperationGroup>> makeOperationGroups();

}  // namespace corvalen
