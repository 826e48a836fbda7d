// SPDX-License-Identifier: MIT
// The error domain of the operations: codes and texts.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "corvalen/error.hpp"
#include "foundation/cancellation.hpp"
#include "foundation/result.hpp"

namespace corvalen {

enum class OperationErrorCode : std::uint8_t {
    answer = 0,  // no failure: the user info holds an answer
    missingComponent = 1,
    unsafeUtilityPermissions = 2,
    utilityFailed = 3,
    cannotCreateObject = 4,
    backupBlockedByFolder = 5,
    cannotDeleteWhiteout = 6,
    cannotChangeFlags = 7,
    singleUserModeRequired = 8,
    cannotReadPowerPreferences = 9,
    cannotSetPowerPreferences = 10,
    cannotModifyNvram = 11,
    cannotUpdatePreference = 12,
    cannotUpdateSystemConfiguration = 13,
    cannotSetAccessControlList = 14,
    cannotReadAttributes = 15,
    cannotChangeOwner = 16,
    cannotChangePermissions = 17,
    objectProtected = 18,
};

/// Details of an error beyond its texts; empty and null members are left out.
struct OperationErrorDetails {
    /// Replace the placeholders of the recovery suggestion, in order.
    std::vector<std::string> suggestionArguments;
    std::string_view filePath = {};
    ErrorRef underlyingError = nullptr;
};

/// The error of `code` with its description, its recovery suggestion and the details.
[[nodiscard]] ErrorRef makeOperationError(OperationErrorCode code,
                                          const OperationErrorDetails& details = {});

/// The answer of an operation: code 0 of the error domain, with only this entry.
[[nodiscard]] ErrorRef makeOperationAnswer(std::string_view key, Value value);

/// The error of an operation that was stopped between two objects: POSIX ECANCELED, with the number
/// of finished objects under kKeyObjectCount.
[[nodiscard]] ErrorRef cancelledError(const Cancellation& cancellation);

// Operations turn the errors of system calls into error objects with these functions.

[[nodiscard]] inline ErrorRef makePosixError(SystemError error) {
    return makePosixError(error.number);
}
[[nodiscard]] inline ErrorRef makeFileError(FileAccess access, SystemError error,
                                            std::string_view path) {
    return makeFileError(access, error.number, path);
}
inline bool failWithErrno(ErrorRef* out, SystemError error) {
    return failWithErrno(out, error.number);
}
/// The POSIX error of a failed result, null of a success.
[[nodiscard]] inline ErrorRef errorOf(const Result<>& result) {
    return result ? nullptr : makePosixError(result.error());
}

/// Texts of a code, with their placeholders; empty for the answer.
[[nodiscard]] std::string_view operationErrorDescription(OperationErrorCode code) noexcept;
[[nodiscard]] std::string_view operationErrorSuggestion(OperationErrorCode code) noexcept;

}  // namespace corvalen
