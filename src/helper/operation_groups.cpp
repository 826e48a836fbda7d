// SPDX-License-Identifier: MIT
#include "helper/operation_groups.hpp"

namespace corvalen {

std::vector<std::unique_ptr<OperationGroup>> makeOperationGroups() {
    std::vector<std::unique_ptr<OperationGroup>> groups;
    return groups;
}

}  // namespace corvalen
