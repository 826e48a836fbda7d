// SPDX-License-Identifier: MIT
// Bytes as text and back (RFC 4648, section 4).
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "corvalen/value.hpp"

namespace corvalen {

/// With padding, in one line.
[[nodiscard]] std::string base64FromBytes(std::string_view bytes);
/// The padding must be there; white space may stand anywhere.
[[nodiscard]] std::optional<Data> dataFromBase64(std::string_view text);

}  // namespace corvalen
