// SPDX-License-Identifier: MIT
#include "helper/class_registry.hpp"

#include <array>

#include "helper/operation_groups.hpp"
#include "operations/privileged_operation_set.hpp"

namespace corvalen {
namespace {

struct RegisteredClass {
    std::string_view name;
    std::unique_ptr<QRLPrivilegedOperationSet> (*make)();
};

constexpr std::array kClasses = {
    RegisteredClass{"QRLPrivilegedOperationSetKVX",
                    []() -> std::unique_ptr<QRLPrivilegedOperationSet> {
                        return std::make_unique<QRLPrivilegedOperationSetKVX>(
                            makeOperationGroups());
                    }},
};

}  // namespace

QRLPrivilegedOperationSet::Factory operationSetFactoryForClassName(std::string_view className) {
    for (const RegisteredClass& registered : kClasses) {
        if (registered.name == className) return registered.make;
    }
    return {};
}

}  // namespace corvalen
