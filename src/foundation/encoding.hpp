// SPDX-License-Identifier: MIT
// Text encodings: UTF-8 and base64.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "corvalen/value.hpp"

namespace corvalen {

// UTF-8 as RFC 3629 defines it: no overlong forms, no surrogates, nothing above U+10FFFF.

/// One decoded character; `length` in bytes, 0 if the bytes are invalid.
struct Utf8Character {
    char32_t codePoint = 0;
    std::size_t length = 0;
};

/// The character that begins at `offset`, which must be below `text.size()`.
[[nodiscard]] Utf8Character utf8CharacterAt(std::string_view text, std::size_t offset) noexcept;

/// True for characters that change how a terminal or a line reader takes the text after them:
/// controls (C0, DEL, C1), line separators, and invisible characters that set the direction of
/// text.
[[nodiscard]] bool isControlOrInvisible(char32_t codePoint) noexcept;

/// Appends a code point: not a surrogate, and at most U+10FFFF.
void appendUtf8(std::string& text, char32_t codePoint);

// Base64 (RFC 4648, section 4).

/// Encodes with padding, without line breaks.
[[nodiscard]] std::string base64FromBytes(std::string_view bytes);
/// Decodes; ignores white space. Returns std::nullopt for other characters, missing padding, or
/// digits after it.
[[nodiscard]] std::optional<Data> dataFromBase64(std::string_view text);

}  // namespace corvalen
