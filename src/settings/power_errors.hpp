// SPDX-License-Identifier: MIT
// The failures of the operations on power settings.
#pragma once

#include <cstdint>
#include <string>

#include "operations/errors.hpp"

namespace corvalen {

/// The suggestion has the wire contract's code, 0 without a failed system call.
inline ErrorRef cannotSetPreferences(const Result<>& result) {
    const std::int64_t code = result ? 0 : posixCodeFromErrno(result.error().number);
    return makeOperationError(OperationErrorCode::cannotSetPowerPreferences,
                              {.suggestionArguments = {std::to_string(code)}});
}

inline ErrorRef cannotReadPreferences() {
    return makeOperationError(OperationErrorCode::cannotReadPowerPreferences);
}

}  // namespace corvalen
