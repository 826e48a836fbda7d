// SPDX-License-Identifier: MIT
// Why an operation was denied, and what helps.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "corvalen/error.hpp"

namespace corvalen::cli {

/// Whether the user could be asked for a password by this program.
enum class Asking : std::uint8_t {
    /// Root, an operation for everybody, or a session with an agent of its own.
    notNeeded,
    onThisTerminal,
    /// By --no-ask-password.
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

/// The cause, as far as the error and the machine show it, and the remedy.
[[nodiscard]] DenialText denialText(const Denial& denial);

/// Looks at the machine when `error` can be a denial of the right of `operation`; nothing for other
/// errors, and for root unless the right is missing.
[[nodiscard]] std::optional<Denial> examineDenial(std::string_view operation, const ErrorRef& error,
                                                  Asking asking);

}  // namespace corvalen::cli
