// SPDX-License-Identifier: MIT
// Classifies the daemon's errors: kinds, errno values, and text.
#pragma once

#include <cstdint>
#include <string>

#include "corvalen/error.hpp"

namespace corvalen {

enum class FailureKind : std::uint8_t {
    none,
    /// The operation failed, or its arguments are invalid.
    operation,
    /// The daemon could not be reached, or ended during the request.
    notReachable,
    /// The right was denied, or the authority could not decide.
    notAuthorized,
    /// The user dismissed the authorization dialog.
    canceled,
};

/// Returns the kind of a request's error. POSIX 1 without user info means a denied right, or in a
/// few operations a refused system call. The authority never denies user 0, so for that user it
/// counts as a failure of the operation.
[[nodiscard]] FailureKind failureKind(const ErrorRef& error) noexcept;

/// Returns the errno value of a POSIX error, or else of the first POSIX error underneath. Without
/// one it derives the value from the error's code; EIO if that is not possible. 0 for null.
[[nodiscard]] int hostErrno(const ErrorRef& error) noexcept;

/// Describes an error: what happened, the path, what can be done, and each underlying error on its
/// own line ("caused by: ..."), without a final newline. The texts of the daemon are translated if
/// the locale has a catalogue "PrivilegedOperationErrors" (gettext(3)). Not escaped: escape the
/// text before writing it to a terminal.
[[nodiscard]] std::string describeFailure(const ErrorRef& error);

}  // namespace corvalen
