// SPDX-License-Identifier: MIT
// The failures of the operations on power settings.
#pragma once

#include <cstdint>
#include <string>

#include "operations/errors.hpp"

namespace corvalen {

inline ErrorRef cannotSetPreferences(std::int32_t status) {
    return makeOperationError(OperationErrorCode::cannotSetPowerPreferences,
                              {.suggestionArguments = {std::to_string(status)}});
}

inline ErrorRef cannotReadPreferences() {
    return makeOperationError(OperationErrorCode::cannotReadPowerPreferences);
}

}  // namespace corvalen
