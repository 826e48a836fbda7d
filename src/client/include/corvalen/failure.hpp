// SPDX-License-Identifier: MIT
// Errors of the helper in the terms of the host: kinds, errno values, and words.
#pragma once

#include <cstdint>
#include <string>

#include "corvalen/error.hpp"

namespace corvalen {

enum class FailureKind : std::uint8_t {
    none,
    /// The operation, or its arguments, failed.
    operation,
    /// The helper could not be reached, or went away in the middle.
    notReachable,
    /// The right was denied, or could not be decided.
    notAuthorized,
    /// The user dismissed the question for authorization.
    canceled,
};

/// The kind of an error of a request. The helper tells a denied right as POSIX 1 without
/// particulars, as a few operations tell a refused system call. An operation of user 0 is never
/// refused by the authority in force, so for that user it counts as a failure of the operation.
[[nodiscard]] FailureKind failureKind(const ErrorRef& error) noexcept;

/// The errno value that says most about an error: of its POSIX error, or that of the error
/// underneath, or the one that its code stands for; EIO when nothing fits, 0 for null.
[[nodiscard]] int hostErrno(const ErrorRef& error) noexcept;

/// The error in words: what happened, the path, what can be done, and each error underneath on a
/// line of its own ("caused by: ..."), without a final newline. The helper's own texts come in the
/// language of the process's locale where there is a catalogue "PrivilegedOperationErrors" for it
/// (gettext(3)). Bytes as they are: escape them before showing them on a terminal.
[[nodiscard]] std::string describeFailure(const ErrorRef& error);

}  // namespace corvalen
