// SPDX-License-Identifier: MIT
#pragma once

#include "foundation/result.hpp"

namespace corvalen::test {

/// The errno of a failure, 0 of a success.
template <class T, class E>
int errnoOf(const Result<T, E>& result) noexcept {
    return result ? 0 : result.error().number;
}

}  // namespace corvalen::test
