// SPDX-License-Identifier: MIT
// Arguments of an operation. Their number and types were checked against the descriptor before;
// what is not there reads as empty or 0.
#pragma once

#include <string>

#include "foundation/value.hpp"

namespace corvalen {

/// Valid as long as `arguments`.
[[nodiscard]] inline const std::string& stringArgument(const Array& arguments, std::size_t index) {
    static const std::string kNone;
    const std::string* text = index < arguments.size() ? arguments[index].string() : nullptr;
    return text != nullptr ? *text : kNone;
}

[[nodiscard]] inline Number numberArgument(const Array& arguments, std::size_t index) noexcept {
    const Number* number = index < arguments.size() ? arguments[index].number() : nullptr;
    return number != nullptr ? *number : Number::fromSigned(0);
}

}  // namespace corvalen
