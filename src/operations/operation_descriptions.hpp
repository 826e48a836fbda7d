// SPDX-License-Identifier: MIT
// Descriptions of the operations for users: the source of manual pages and command line help.
// Requests are checked by the table alone.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>

#include "operations/operation_rows.hpp"
#include "operations/privileged_operation.hpp"

namespace corvalen {

struct ArgumentDescription {
    /// S string, N number, D data, as in the table.
    char type;
    std::string_view name;
    /// Its meaning, unit and allowed values.
    std::string_view meaning;
    /// Stands for this argument and all that follow; there may be none.
    bool repeats = false;
};

struct FeedbackDescription {
    /// The keys of one message, separated by ", ".
    std::string_view keys;
    /// When it is sent, and the meaning of the values.
    std::string_view meaning;
};

enum class ErrorOrigin : std::uint8_t {
    /// NSPOSIXErrorDomain.
    posix,
    /// The domain of the operations; the code is an OperationErrorCode.
    operation,
    /// NSCocoaErrorDomain, with the path and the POSIX error underneath, which determines the code.
    file,
};

struct ErrorDescription {
    ErrorOrigin origin;
    /// 0 if the failed call determines the code.
    std::int64_t code;
    std::string_view when;
};

struct OperationDescription {
    OperationCode code;
    /// One sentence without a full stop, in the third person.
    std::string_view summary;
    /// Whole sentences; may be empty.
    std::string_view details;
    std::span<const ArgumentDescription> arguments;
    /// Messages that the operation itself sends, in order; empty without feedback.
    std::span<const FeedbackDescription> feedback;
    /// Key, type and meaning of the answer in an error of code 0; empty without an answer.
    std::string_view answer;
    /// Errors beyond those of every request.
    std::span<const ErrorDescription> errors;
    /// Arguments as `corvalenctl call` takes them.
    std::string_view example;
    /// Index of the argument that names the object; with `repeats`, of the first one.
    std::size_t objectArgument = 0;
};

/// One description per row of the table, in its order.
[[nodiscard]] std::span<const OperationDescription> operationDescriptions();
/// Returns null if the table has no such operation.
[[nodiscard]] const OperationDescription* descriptionOfOperation(OperationCode code);

// What the sources of the descriptions share.

/// The operations on objects and trees; those on settings and the daemon itself are in
/// operation_descriptions.cpp.
[[nodiscard]] std::span<const OperationDescription> descriptionsOfObjectOperations() noexcept;

/// Whether the description of the group's operations is in descriptionsOfObjectOperations().
template <class Group>
inline constexpr bool kWorksOnObjects =
    std::is_same_v<Group, FileOperations> || std::is_same_v<Group, TreeWalkOperations>;

[[nodiscard]] constexpr bool describes(std::span<const OperationDescription> list,
                                       OperationCode code) {
    return std::any_of(list.begin(), list.end(),
                       [code](const OperationDescription& one) { return one.code == code; });
}

// Errors that several operations share.
namespace description {

inline constexpr ErrorDescription kEmptyPath = {ErrorOrigin::posix, 22, "the path is empty"};
inline constexpr ErrorDescription kNothingThere = {ErrorOrigin::posix, 2, "nothing exists there"};
inline constexpr ErrorDescription kNotADirectory = {ErrorOrigin::posix, 20, "it is no folder"};
inline constexpr ErrorDescription kCallFailed = {ErrorOrigin::posix, 0,
                                                 "the system refuses the change"};

}  // namespace description

}  // namespace corvalen
