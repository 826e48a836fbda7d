// SPDX-License-Identifier: MIT
// The operations that the helper knows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace corvalen {

using OperationCode = std::uint64_t;

/// Who may ask for an operation unless the administrator decided otherwise.
enum class OperationPolicy : std::uint8_t { anybody, administrators, authenticatedAdministrators };

/// What an operation sends while it runs.
enum class OperationFeedback : std::uint8_t { none, progress, liveOutput };

/// One operation. The texts are constants of the library.
struct OperationInfo {
    OperationCode code;
    std::string_view identifier;
    /// Nothing for any number of strings.
    std::optional<std::size_t> argumentCount;
    /// One letter an argument: S string, N number, D data; empty for any number of strings.
    std::string_view argumentTypes;
    OperationPolicy policy;
    OperationFeedback feedback;
    /// The sentence that the user is shown when authorization is asked for.
    std::string_view prompt;
};

/// All operations, in the order of the catalogue. Any thread may call.
[[nodiscard]] std::span<const OperationInfo> operationCatalogue();
/// Null when there is no such operation.
[[nodiscard]] const OperationInfo* findOperation(OperationCode code);
[[nodiscard]] const OperationInfo* findOperation(std::string_view identifier);

}  // namespace corvalen
