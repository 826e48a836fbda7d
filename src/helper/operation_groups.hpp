// SPDX-License-Identifier: MIT
// The groups of operations that the daemon performs.
#pragma once

#include <memory>
#include <vector>

#include "operations/method_table.hpp"

namespace corvalen {

/// Every group with the platform services that it stands on, which live as long as the process.
[[nodiscard]] std::vector<std::unique_ptr<OperationGroup>> makeOperationGroups();

}  // namespace corvalen
