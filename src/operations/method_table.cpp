// SPDX-License-Identifier: MIT
#include "operations/method_table.hpp"

namespace corvalen {

void MethodTable::add(std::string_view selector, PlainOperationMethod method) {
    _methods.insert_or_assign(std::string(selector), std::move(method));
}

void MethodTable::add(std::string_view selector, FeedbackOperationMethod method) {
    _methods.insert_or_assign(std::string(selector), std::move(method));
}

const OperationMethod* MethodTable::find(std::string_view selector) const noexcept {
    const auto found = _methods.find(selector);
    return found == _methods.end() ? nullptr : &found->second;
}

}  // namespace corvalen
