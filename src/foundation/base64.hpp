// SPDX-License-Identifier: MIT
// Base64 encoding and decoding (RFC 4648, section 4).
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "corvalen/value.hpp"

namespace corvalen {

/// Encodes with padding, without line breaks.
[[nodiscard]] std::string base64FromBytes(std::string_view bytes);
/// Decodes; ignores white space. Returns std::nullopt for other characters, missing padding, or
/// digits after it.
[[nodiscard]] std::optional<Data> dataFromBase64(std::string_view text);

}  // namespace corvalen
