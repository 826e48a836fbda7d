// SPDX-License-Identifier: MIT
// Causes of a denial, and their remedies.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "corvalen/error.hpp"

namespace corvalen::cli {

/// Whether this program can let polkit ask the user for a password.
enum class Asking : std::uint8_t {
    /// The user is root, or everybody may perform the operation.
    notNeeded,
    onThisTerminal,
    /// --no-ask-password was given.
    switchedOff,
    noTerminal,
};

struct Denial {
    /// The right of the operation.
    std::string right;
    ErrorRef error;
    Asking asking = Asking::notNeeded;
    bool isRoot = false;
    bool hasPolkit = false;
    bool isRightMissing = false;
};

struct DenialText {
    std::string message;
    std::string advice;
};

/// Returns the cause, as far as the error and the machine show it, and the remedy.
[[nodiscard]] DenialText denialText(const Denial& denial);

/// Asks the authority about the right of `operation` if `error` can be its denial. Returns nullopt
/// for other errors, and for an EPERM that root got from the system, unless the right is missing.
[[nodiscard]] std::optional<Denial> examineDenial(std::string_view operation, const ErrorRef& error,
                                                  Asking asking);

}  // namespace corvalen::cli
