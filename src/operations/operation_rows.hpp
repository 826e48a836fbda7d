// SPDX-License-Identifier: MIT
// How a group of operations gets the methods that its rows of operation_rows.def name.
#pragma once

#include <cstdint>
#include <string_view>
#include <type_traits>

#include "operations/method_table.hpp"
#include "operations/privileged_operation.hpp"

namespace corvalen {

// The groups that rows name. This library knows no more of them than that.
class FileOperations;
class TreeWalkOperations;
class SettingsOperations;
class UtilityOperations;
class MaintenanceOperations;

/// Calls `visit(code, method, member)` for each row of `Group`, in the order of the rows: `method`
/// is the name of the member function, `member` the pointer to it. Each group instantiates it for
/// itself, so that a row with a wrong method name does not compile.
template <class Group, class Visit>
constexpr void visitRowsOf(const Visit& visit) {
#define OPERATION(code, identifier, group, method, ...) \
    if constexpr (std::is_same_v<Group, group>)         \
        visit(OperationCode{code}, std::string_view(#method), &Group::method);
#include "operations/operation_rows.def"
#undef OPERATION
}

/// A group of operations with the methods that its rows name. Group derives from it.
template <class Group>
class GroupOfRows : public OperationGroup {
  public:
    void registerMethods(MethodTable& table) override {
        visitRowsOf<Group>([&](OperationCode, std::string_view method, auto member) {
            table.addMember(method, static_cast<Group&>(*this), member);
        });
    }
};

}  // namespace corvalen
