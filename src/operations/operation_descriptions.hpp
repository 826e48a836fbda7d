// SPDX-License-Identifier: MIT
// What each operation of the table means to those who ask for it. The manual pages and the help of
// the command line are made from this; the requests themselves are checked by the table alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "operations/privileged_operation.hpp"

namespace corvalen {

struct ArgumentDescription {
    /// S string, N number, D data, as in the table.
    char type;
    std::string_view name;
    /// What it stands for, its unit, and which values are allowed.
    std::string_view meaning;
    /// It stands for this argument and those that follow, which may be none.
    bool repeats = false;
};

struct FeedbackDescription {
    /// The keys of one message, separated by ", ".
    std::string_view keys;
    /// When it is sent, and what the values are.
    std::string_view meaning;
};

enum class ErrorOrigin : std::uint8_t {
    /// NSPOSIXErrorDomain.
    posix,
    /// The domain of the operations; the code is an OperationErrorCode.
    operation,
    /// NSCocoaErrorDomain, with the path and the POSIX error underneath; the code depends on it.
    file,
};

struct ErrorDescription {
    ErrorOrigin origin;
    /// 0 for an errno value, or a code, that the failed call decides.
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
    /// What the operation itself sends, in order; empty without feedback.
    std::span<const FeedbackDescription> feedback;
    /// Key, type and meaning of the answer in an error of code 0; empty when there is none.
    std::string_view answer;
    /// Beyond the errors that every request can end with.
    std::span<const ErrorDescription> errors;
    /// Arguments as `corvalenctl call` takes them.
    std::string_view example;
    /// Which argument names what the operation is about; with `repeats`, all from there on.
    std::size_t objectArgument = 0;
};

/// One description an operation, in the order of the table.
[[nodiscard]] std::span<const OperationDescription> operationDescriptions() noexcept;
/// Null when there is no such operation.
[[nodiscard]] const OperationDescription* descriptionOfOperation(OperationCode code) noexcept;

}  // namespace corvalen
