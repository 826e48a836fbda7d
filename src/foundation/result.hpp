// SPDX-License-Identifier: MIT
// Results of functions that can fail in a system call.
#pragma once

#include <cerrno>
#include <tl/expected.hpp>
#include <utility>

#include "corvalen/descriptor.hpp"

namespace corvalen {

/// A failed system call.
struct SystemError {
    int number = 0;  // an errno, not 0

    friend constexpr bool operator==(SystemError, SystemError) noexcept = default;
    friend constexpr bool operator==(SystemError error, int other) noexcept {
        return error.number == other;
    }
};

/// A value, or the error that prevented it. Where an error has more to say than an errno, `E` is
/// the type that says it.
template <class T = void, class E = SystemError>
using Result = tl::expected<T, E>;

/// A failed result of any value type.
[[nodiscard]] inline tl::unexpected<SystemError> failure(SystemError error) noexcept {
    return tl::unexpected<SystemError>(error);
}
[[nodiscard]] inline tl::unexpected<SystemError> failure(int number) noexcept {
    return failure(SystemError{number});
}
template <class E>
[[nodiscard]] tl::unexpected<E> failure(E error) noexcept {
    return tl::unexpected<E>(std::move(error));
}

/// The result of a system call that returned 0, or -1 with errno.
[[nodiscard]] inline Result<> resultOf(long returned) noexcept {
    if (returned != 0) return failure(errno);
    return {};
}

/// The result of a system call that returned a new descriptor, or -1 with errno.
[[nodiscard]] inline Result<UniqueFd> openedBy(long returned) noexcept {
    if (returned < 0) return failure(errno);
    return UniqueFd(static_cast<int>(returned));
}

template <class T, class E>
[[nodiscard]] bool failedWith(const Result<T, E>& result, int number) noexcept {
    return !result && result.error().number == number;
}

/// The result, or success if `isHarmless(error)`.
template <class Predicate>
[[nodiscard]] Result<> ignoring(Predicate isHarmless, const Result<>& result) {
    if (!result && isHarmless(result.error())) return {};
    return result;
}

}  // namespace corvalen
