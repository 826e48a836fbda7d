// SPDX-License-Identifier: MIT
// The methods of the operation set, by selector.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "corvalen/error.hpp"
#include "corvalen/value.hpp"
#include "operations/feedback.hpp"

namespace corvalen {

/// Performs an operation. `arguments` are already checked against its descriptor. Returns null for
/// success, an error of code 0 with the answer, or the error. Several threads may call it at once.
using PlainOperationMethod = std::function<ErrorRef(const Array& arguments)>;
/// Same with a feedback connection, which may be null.
using FeedbackOperationMethod =
    std::function<ErrorRef(const Array& arguments, FeedbackConnection* feedbackConnection)>;
using OperationMethod = std::variant<PlainOperationMethod, FeedbackOperationMethod>;

/// Maps selectors ("performOperation...WithArguments:", with "feedbackConnection:" if the method
/// reports) to member functions. Filled at start, then constant.
class MethodTable {
  public:
    void add(std::string_view selector, OperationMethod method) {
        _methods.insert_or_assign(std::string(selector), std::move(method));
    }
    /// Adds `member`, the member function `method` of `group`, under the selector that its name and
    /// parameters form. `group` must outlive the table.
    template <class Group>
    void addMember(std::string_view method, Group& group, ErrorRef (Group::*member)(const Array&)) {
        add(std::string(method).append(":"),
            PlainOperationMethod(
                [&group, member](const Array& arguments) { return (group.*member)(arguments); }));
    }
    template <class Group>
    void addMember(std::string_view method, Group& group,
                   ErrorRef (Group::*member)(const Array&, FeedbackConnection*)) {
        add(std::string(method).append(":feedbackConnection:"),
            FeedbackOperationMethod(
                [&group, member](const Array& arguments, FeedbackConnection* connection) {
                    return (group.*member)(arguments, connection);
                }));
    }
    /// Returns null if no method has the selector.
    [[nodiscard]] const OperationMethod* find(std::string_view selector) const noexcept {
        const auto found = _methods.find(selector);
        return found == _methods.end() ? nullptr : &found->second;
    }

  private:
    std::map<std::string, OperationMethod, std::less<>> _methods;
};

/// A group of related operations.
class OperationGroup {
  public:
    virtual ~OperationGroup() = default;
    /// Adds the group's methods; they are valid while the group lives.
    virtual void registerMethods(MethodTable& table) = 0;
};

}  // namespace corvalen
