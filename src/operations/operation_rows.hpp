// SPDX-License-Identifier: MIT
// The methods of the operations by selector, the feedback that they send, and their registration
// from operation_rows.def for a group.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

#include "corvalen/error.hpp"
#include "corvalen/value.hpp"
#include "operations/names.hpp"
#include "operations/privileged_operation.hpp"

namespace corvalen {

/// The feedback connection of one request. The request's thread sends messages in order and without
/// replies; a message that cannot be delivered is dropped silently.
class FeedbackConnection {
  public:
    virtual ~FeedbackConnection() = default;
    virtual void processPrivilegedOperationFeedback(Dictionary feedback) = 0;
    /// The same, but may keep the message until the next one or `flush`, to send several at once.
    virtual void processLater(Dictionary feedback) {
        processPrivilegedOperationFeedback(std::move(feedback));
    }
    /// Sends what was kept.
    virtual void flush() {}
};

/// Sends {"ProgressFraction": fraction}; does nothing if `connection` is null.
inline void sendProgress(FeedbackConnection* connection, double fraction) {
    if (connection == nullptr) return;
    Dictionary feedback;
    feedback.set(kQRLPORK_ProgressFraction, fraction);
    connection->processPrivilegedOperationFeedback(std::move(feedback));
}

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
