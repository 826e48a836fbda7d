// SPDX-License-Identifier: MIT
// UTF-8 as RFC 3629 defines it: no overlong forms, no surrogates, nothing above U+10FFFF.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace corvalen {

/// One decoded character; `length` 0 means that no valid character begins at the place.
struct Utf8Character {
    char32_t codePoint = 0;
    std::size_t length = 0;
};

/// The character that begins at `offset`, which must be below `text.size()`.
[[nodiscard]] Utf8Character utf8CharacterAt(std::string_view text, std::size_t offset) noexcept;

/// Whether a terminal, or a reader of lines, takes what follows differently because of this
/// character: controls (C0, DEL, C1) and characters without a shape that separate lines or turn the
/// direction of writing.
[[nodiscard]] bool isControlOrInvisible(char32_t codePoint) noexcept;

/// Appends a code point, which must be no surrogate and at most U+10FFFF.
void appendUtf8(std::string& text, char32_t codePoint);

}  // namespace corvalen
