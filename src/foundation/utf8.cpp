// SPDX-License-Identifier: MIT
#include "foundation/utf8.hpp"

namespace corvalen {

namespace {

struct Lead {
    std::size_t length;
    char32_t bits;
    char32_t smallest;  // anything below it is an overlong form
};

Lead leadOf(unsigned char byte) noexcept {
    if (byte < 0x80) return {1, byte, 0};
    if (byte >= 0xC2 && byte <= 0xDF) return {2, byte & 0x1FU, 0x80};
    if (byte >= 0xE0 && byte <= 0xEF) return {3, byte & 0x0FU, 0x800};
    if (byte >= 0xF0 && byte <= 0xF4) return {4, byte & 0x07U, 0x10000};
    return {0, 0, 0};
}

}  // namespace

Utf8Character utf8CharacterAt(std::string_view text, std::size_t offset) noexcept {
    const Lead lead = leadOf(static_cast<unsigned char>(text[offset]));
    if (lead.length == 0 || lead.length > text.size() - offset) return {};
    char32_t codePoint = lead.bits;
    for (std::size_t i = 1; i < lead.length; ++i) {
        const auto byte = static_cast<unsigned char>(text[offset + i]);
        if ((byte & 0xC0U) != 0x80U) return {};
        codePoint = (codePoint << 6U) | (byte & 0x3FU);
    }
    const bool surrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
    if (codePoint < lead.smallest || surrogate || codePoint > 0x10FFFF) return {};
    return {codePoint, lead.length};
}

void appendUtf8(std::string& text, char32_t codePoint) {
    const auto tail = [&](unsigned shift) {
        text.push_back(static_cast<char>(0x80U | ((codePoint >> shift) & 0x3FU)));
    };
    if (codePoint < 0x80) {
        text.push_back(static_cast<char>(codePoint));
    } else if (codePoint < 0x800) {
        text.push_back(static_cast<char>(0xC0U | (codePoint >> 6U)));
        tail(0);
    } else if (codePoint < 0x10000) {
        text.push_back(static_cast<char>(0xE0U | (codePoint >> 12U)));
        tail(6);
        tail(0);
    } else {
        text.push_back(static_cast<char>(0xF0U | (codePoint >> 18U)));
        tail(12);
        tail(6);
        tail(0);
    }
}

}  // namespace corvalen
