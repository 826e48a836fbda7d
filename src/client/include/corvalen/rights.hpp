// SPDX-License-Identifier: MIT
// Defines and removes the authorization rights of the operations on this machine.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "corvalen/error.hpp"

namespace corvalen {

/// Describes the authority of this machine, for people. May block on the system bus.
[[nodiscard]] std::string authorityDescription();

enum class RightState : std::uint8_t {
    /// polkit does not respond: the built-in authority defines every right.
    builtIn,
    defined,
    /// polkit responds but has no policy file for the right: it denies the operation to everybody.
    missing,
};

/// Returns the state of an operation's right at this machine's authority. An unknown operation has
/// no right. Any user may call. Stores the right's name in `*name` unless `name` is null.
[[nodiscard]] RightState rightState(std::string_view operation, std::string* name = nullptr);

/// Defines the rights of all operations at the machine's authority. Existing rights keep the
/// administrator's changes. Fails with POSIX EPERM unless the user is 0. If the authority refuses a
/// definition, defines the others and fails with the OS status error of the first right that is
/// missing.
bool defineRights(ErrorRef* error = nullptr);

/// Removes the rights of all operations; a right that does not exist is no failure. Otherwise like
/// `defineRights`.
bool removeRights(ErrorRef* error = nullptr);

}  // namespace corvalen
