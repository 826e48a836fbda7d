// SPDX-License-Identifier: MIT
// The catalogue of the daemon's operations.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace corvalen {

using OperationCode = std::uint64_t;

/// Default policy of an operation; the administrator may change it.
enum class OperationPolicy : std::uint8_t { anybody, administrators, authenticatedAdministrators };

/// Feedback that an operation sends while it runs.
enum class OperationFeedback : std::uint8_t { none, progress, liveOutput };

/// One operation. Its texts are constants of the library.
struct OperationInfo {
    OperationCode code;
    std::string_view identifier;
    /// std::nullopt: any number of strings.
    std::optional<std::size_t> argumentCount;
    /// One letter per argument: S string, N number, D data; empty for any number of strings.
    std::string_view argumentTypes;
    OperationPolicy policy;
    OperationFeedback feedback;
    /// The sentence of the authorization prompt.
    std::string_view prompt;
};

/// All operations, in the order of the catalogue. Thread-safe.
[[nodiscard]] std::span<const OperationInfo> operationCatalogue();
/// Returns null if there is no such operation.
[[nodiscard]] const OperationInfo* findOperation(OperationCode code);
[[nodiscard]] const OperationInfo* findOperation(std::string_view identifier);

}  // namespace corvalen
