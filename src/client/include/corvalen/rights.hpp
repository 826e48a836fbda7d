// SPDX-License-Identifier: MIT
// Defining and removing the authorization rights of the operations on this machine.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "corvalen/error.hpp"

namespace corvalen {

/// Which authority decides on this machine, for people; may take as long as the system bus does.
[[nodiscard]] std::string authorityDescription();

enum class RightState : std::uint8_t {
    /// No polkit answers: the built-in authority has a definition of every right.
    builtIn,
    defined,
    /// polkit answers and has no file for the right: it denies the operation to everybody.
    missing,
};

/// Whether the right of an operation is defined at this machine's authority; any user may ask. An
/// unknown operation has no right. `name`, when not null, gets the right's name.
[[nodiscard]] RightState rightState(std::string_view operation, std::string* name = nullptr);

/// Defines the right of every operation at the machine's authority. A right that exists already
/// keeps what an administrator made of it. Needs user 0: POSIX EPERM for others. An authority that
/// does not accept a definition gives the OS status error of the first right that is missing
/// afterwards; the other rights are defined nevertheless.
bool defineRights(ErrorRef* error = nullptr);

/// Removes the right of every operation; one that does not exist is no failure. Otherwise as
/// `defineRights`.
bool removeRights(ErrorRef* error = nullptr);

}  // namespace corvalen
