// SPDX-License-Identifier: MIT
// Which methods the operation set responds to, by selector text.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <variant>

#include "corvalen/error.hpp"
#include "corvalen/value.hpp"
#include "operations/feedback.hpp"

namespace corvalen {

/// An operation: gets arguments already checked against its descriptor; gives the error or, for
/// the operations that answer, an error of code 0 with the answer; null for plain success.
/// May be called by several threads at once.
using PlainOperationMethod = std::function<ErrorRef(const Array& arguments)>;
/// The same with a feedback connection, which may be null.
using FeedbackOperationMethod =
    std::function<ErrorRef(const Array& arguments, FeedbackConnection* feedbackConnection)>;
using OperationMethod = std::variant<PlainOperationMethod, FeedbackOperationMethod>;

/// Maps the selector text of an implementing method ("performOperation...WithArguments:", with
/// "feedbackConnection:" where it reports) to the member function. Filled at start, then constant.
class MethodTable {
  public:
    void add(std::string_view selector, PlainOperationMethod method);
    void add(std::string_view selector, FeedbackOperationMethod method);
    /// The same for a member of `group`, which outlives the table.
    template <class Group>
    void add(std::string_view selector, Group& group, ErrorRef (Group::*member)(const Array&)) {
        add(selector, PlainOperationMethod([&group, member](const Array& arguments) {
                return (group.*member)(arguments);
            }));
    }
    template <class Group>
    void add(std::string_view selector, Group& group,
             ErrorRef (Group::*member)(const Array&, FeedbackConnection*)) {
        add(selector, FeedbackOperationMethod(
                          [&group, member](const Array& arguments, FeedbackConnection* connection) {
                              return (group.*member)(arguments, connection);
                          }));
    }
    /// Null when nothing responds to the selector.
    [[nodiscard]] const OperationMethod* find(std::string_view selector) const noexcept;

  private:
    std::map<std::string, OperationMethod, std::less<>> _methods;
};

/// A group of operations that belongs together and can be built and tested alone.
class OperationGroup {
  public:
    virtual ~OperationGroup() = default;
    /// Adds the group's methods; they are called as long as the group lives.
    virtual void registerMethods(MethodTable& table) = 0;
};

}  // namespace corvalen
