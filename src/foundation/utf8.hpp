// SPDX-License-Identifier: MIT
// UTF-8 as RFC 3629 defines it: no overlong forms, no surrogates, nothing above U+10FFFF.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace corvalen {

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

}  // namespace corvalen
