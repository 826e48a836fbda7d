// SPDX-License-Identifier: MIT
// Registers the methods that operation_rows.def names for a group of operations.
#pragma once

#include <cstdint>
#include <string_view>
#include <type_traits>

#include "operations/method_table.hpp"
#include "operations/privileged_operation.hpp"

namespace corvalen {

// The groups that the rows name; this library only declares them.
class FileOperations;
class TreeWalkOperations;
class SettingsOperations;
class UtilityOperations;
class MaintenanceOperations;

/// Calls `visit(code, method, member)` for each row of `Group`, in row order: `method` is the name
/// of the member function, `member` the pointer to it. Each group instantiates it, so a row with a
/// wrong method name does not compile.
template <class Group, class Visit>
constexpr void visitRowsOf(const Visit& visit) {
#define OPERATION(code, identifier, group, method, ...) \
    if constexpr (std::is_same_v<Group, group>)         \
        visit(OperationCode{code}, std::string_view(#method), &Group::method);
#include "operations/operation_rows.def"
#undef OPERATION
}

/// A group of operations that registers the methods of its rows. Group derives from it.
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
